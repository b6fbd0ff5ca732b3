// The live view's terminal: the alternate screen with the cursor hidden and
// keys read without echo while it runs, everything given back as it was when
// the view ends (also when it ends on Ctrl-C or SIGTERM), and frames drawn in
// place without clearing the screen, so nothing flickers.
#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/file_descriptor.h"

namespace zibd::status {

// Signals the live view reacts to, delivered as bytes on a pipe so that the
// main loop sees them in poll: SIGINT, SIGTERM, SIGHUP (end), SIGWINCH
// (redraw), SIGTSTP (give the terminal back, stop, take it again).
class SignalPipe {
 public:
  SignalPipe();
  ~SignalPipe();
  SignalPipe(const SignalPipe&) = delete;
  SignalPipe& operator=(const SignalPipe&) = delete;

  bool valid() const { return pipe_.read_end.valid(); }
  int fd() const { return pipe_.read_end.get(); }
  // The signals that arrived since the last call.
  std::vector<int> take();
  // Stops the process as SIGTSTP would have without the handler; returns
  // once it is continued.
  static void stopProcess();

 private:
  Pipe pipe_;
};

class Terminal {
 public:
  // in: the terminal to read keys from (-1: none); out: the one to draw on.
  Terminal(int in, int out);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Takes the terminal over (again after suspend()).
  void enter();
  // Gives it back as it was.
  void leave();

  // The window size; 80x24 when the terminal cannot say.
  void size(std::size_t* columns, std::size_t* rows) const;

  // Draws the lines from the top left corner, each cut to the width, as
  // many as fit; what the previous frame left below or to the right is
  // cleared line by line.
  void draw(const std::vector<std::string>& lines);

 private:
  void write(const std::string& bytes);

  int in_, out_;
  bool entered_ = false;
  bool have_saved_ = false;
  termios saved_{};
};

}  // namespace zibd::status
