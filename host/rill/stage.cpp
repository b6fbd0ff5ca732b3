// wait_until_stage of platform/stage.h: the host bus broker holds the stage.
#include "host/rill/api_types.h"
#include "host/rill/client.h"
#include "host/rill/socket.h"
#include "platform/stage.h"

extern "C" int wait_until_stage(int stage) {
  return zibd::rill::guarded(-1, [&] {
    // A connection of its own, so that the caller needs no bus client yet.
    // The broker answers once the stage is reached, which may take long: the
    // one untimed wait of the library, a poll on the socket, which also ends
    // if the broker goes away.
    zibd::rill::Channel channel;
    if (!channel.open(zibd::rill::socketPath())) return -1;
    zibd::rill::Request request;
    request.op = zibd::rill::Op::kStageWait;
    request.number = stage;
    auto reply = channel.call(request, std::nullopt);
    return reply && reply->status == zibd::rill::Status::kOk ? 0 : -1;
  });
}
