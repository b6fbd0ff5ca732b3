#include "tools/zibd-status/render.h"

#include <cstdio>

namespace zibd::status {

namespace {

constexpr const char* kHex = "0123456789abcdef";

void appendHex(std::string& out, unsigned char byte) {
  out += "\\x";
  out += kHex[byte >> 4];
  out += kHex[byte & 0xf];
}

// The length of the valid UTF-8 sequence at the start of s that encodes a
// printable character (not a C1 control, not overlong, no surrogate), or 0.
std::size_t printableUtf8(std::string_view s) {
  const auto b0 = static_cast<unsigned char>(s[0]);
  std::size_t length;
  std::uint32_t code;
  if (b0 >= 0xc2 && b0 <= 0xdf) {
    length = 2;
    code = b0 & 0x1fu;
  } else if (b0 >= 0xe0 && b0 <= 0xef) {
    length = 3;
    code = b0 & 0x0fu;
  } else if (b0 >= 0xf0 && b0 <= 0xf4) {
    length = 4;
    code = b0 & 0x07u;
  } else {
    return 0;
  }
  if (s.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto b = static_cast<unsigned char>(s[i]);
    if ((b & 0xc0) != 0x80) return 0;
    code = (code << 6) | (b & 0x3fu);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool invalid = code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff);
  const bool c1 = code >= 0x80 && code <= 0x9f;
  return overlong || invalid || c1 ? 0 : length;
}

std::string label(const char* name) {
  std::string out = std::string(name) + ":";
  out.resize(13, ' ');
  return out;
}

std::string formatTime(std::uint64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm local;
  char buffer[32];
  if (!::localtime_r(&t, &local) || ::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local) == 0)
    return std::to_string(seconds);
  return buffer;
}

std::vector<std::string> headLines(const Snapshot& s, const EventLog& events, const RenderOptions& options) {
  std::vector<std::string> lines;
  if (options.clock)
    lines.push_back("zibd status at " + formatTime(static_cast<std::uint64_t>(*options.clock)) +
                    "   (q or Ctrl-C quits)");
  const BusState& bus = s.bus;
  const std::string where = displayText(bus.endpoint);
  if (!bus.reachable) {
    lines.push_back(label("bus") + "unreachable (" + displayText(bus.error) + ")");
  } else {
    lines.push_back(label("bus") + "reachable at " + where +
                    (bus.error.empty() ? "" : " (" + displayText(bus.error) + ")"));
  }
  auto busValue = [&](const std::optional<std::string>& value) {
    if (!bus.reachable) return std::string("unknown (no bus)");
    return value ? displayText(*value) : std::string("not published");
  };
  lines.push_back(label("storage") + busValue(bus.storage_status));
  lines.push_back(label("profiling") + busValue(bus.profiling_status));

  const StorageFiles& storage = s.storage;
  const std::string config = displayText(storage.config_path);
  switch (storage.config) {
    case StorageFiles::Config::kAbsent:
      lines.push_back(label("partition") + "none chosen (no " + config + ")");
      break;
    case StorageFiles::Config::kEmpty:
      lines.push_back(label("partition") + "none chosen (" + config + " is empty)");
      break;
    case StorageFiles::Config::kMalformed:
      lines.push_back(label("partition") + "unknown (" + config + " names no database)");
      break;
    case StorageFiles::Config::kChosen: {
      std::string line = label("partition") + displayText(storage.mount);
      if (auto it = bus.partition_by_mount.find(storage.mount); it != bus.partition_by_mount.end())
        line += " (" + displayText(it->second) + ")";
      if (storage.chosen_at) line += ", chosen " + formatTime(*storage.chosen_at);
      lines.push_back(line);
      lines.push_back(label("database") + displayText(storage.database) +
                      (storage.database_exists ? "" : " (not created yet)"));
      break;
    }
  }
  lines.push_back(label("remembered") + (storage.remembered ? displayText(*storage.remembered) : "none"));

  const StoreCounts& store = s.store;
  switch (store.state) {
    case StoreCounts::State::kNoDatabase:
      lines.push_back(label("files") + "no database");
      break;
    case StoreCounts::State::kFailed:
      lines.push_back(label("files") + "unknown (" + displayText(store.error) + ")");
      break;
    case StoreCounts::State::kOk: {
      // Only waiting files carry ".s.filetype": the daemon drops it with
      // ".s.tbp" once a file is profiled. So the types break down "waiting".
      lines.push_back(label("files") + std::to_string(store.files));
      lines.push_back(label("waiting") + std::to_string(store.waiting));
      for (const auto& [type, count] : store.by_type) {
        std::string line = "  " + displayText(type);
        if (line.size() < 13) line.resize(13, ' ');
        lines.push_back(line + std::to_string(count));
      }
      if (const auto& p = options.progress) {
        const unsigned percent = p->total ? static_cast<unsigned>(p->done * 100 / p->total) : 0;
        lines.push_back(label("progress") + progressBar(p->done, p->total, options.bar_width) + " " +
                        std::to_string(percent) + "%  " + std::to_string(p->done) + " of " +
                        std::to_string(p->total) + " profiled");
      }
      break;
    }
  }

  const std::string log = displayText(events.path());
  if (!events.present())
    lines.push_back(label("events") + "none (no " + log + ")");
  else
    lines.push_back(label("events") + std::to_string(events.total()) + " in " + log +
                    (events.total() ? ", latest last" : ""));
  return lines;
}

}  // namespace

std::string displayText(std::string_view raw, bool already_escaped) {
  std::string out;
  out.reserve(raw.size());
  for (std::size_t i = 0; i < raw.size();) {
    const auto byte = static_cast<unsigned char>(raw[i]);
    if (byte >= 0x20 && byte < 0x7f) {
      if (byte == '\\' && !already_escaped) out += '\\';
      out += static_cast<char>(byte);
      ++i;
    } else if (std::size_t n = byte >= 0x80 ? printableUtf8(raw.substr(i)) : 0; n > 0) {
      out.append(raw.substr(i, n));
      i += n;
    } else {
      appendHex(out, byte);
      ++i;
    }
  }
  return out;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (char c : text)
    if ((static_cast<unsigned char>(c) & 0xc0) != 0x80) ++width;
  return width;
}

std::string fitWidth(std::string_view text, std::size_t columns) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xc0) == 0x80) continue;
    if (width == columns) return std::string(text.substr(0, i));
    ++width;
  }
  return std::string(text);
}

std::string formatEvent(std::string_view line) {
  const std::size_t tab1 = line.find('\t');
  const std::size_t tab2 = tab1 == std::string_view::npos ? tab1 : line.find('\t', tab1 + 1);
  if (tab2 == std::string_view::npos) return "  " + displayText(line, true);
  return "  " + displayText(line.substr(0, tab1), true) + "  " +
         displayText(line.substr(tab1 + 1, tab2 - tab1 - 1), true) + "  " +
         displayText(line.substr(tab2 + 1), true);
}

std::string progressBar(std::uint64_t done, std::uint64_t total, std::size_t width) {
  const std::size_t filled =
      total ? static_cast<std::size_t>(std::min(done, total) * width / total) : 0;
  return "[" + std::string(filled, '#') + std::string(width - filled, '-') + "]";
}

std::optional<Progress> ProgressTracker::update(const Snapshot& snapshot) {
  if (snapshot.store.state != StoreCounts::State::kOk) return std::nullopt;
  const std::uint64_t waiting = snapshot.store.waiting;
  const bool profiling = snapshot.bus.reachable && snapshot.bus.profiling_status == "Profiling";
  const bool ready = snapshot.bus.reachable && snapshot.bus.profiling_status == "Ready";
  if (waiting == 0 && ready) peak_ = 0;
  peak_ = std::max(peak_, waiting);
  if (!profiling) return std::nullopt;
  return Progress{peak_, peak_ - waiting};
}

std::size_t linesBeforeEvents(const Snapshot& snapshot, const EventLog& events, const RenderOptions& options) {
  return headLines(snapshot, events, options).size();
}

std::vector<std::string> renderLines(const Snapshot& snapshot, const EventLog& events,
                                     const RenderOptions& options) {
  std::vector<std::string> lines = headLines(snapshot, events, options);
  const auto& latest = events.latest();
  const std::size_t shown = std::min(options.max_events, latest.size());
  for (std::size_t i = latest.size() - shown; i < latest.size(); ++i) lines.push_back(formatEvent(latest[i]));
  return lines;
}

}  // namespace zibd::status
