#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/notify/client.h"
#include "platform/notify/desktop.h"
#include "platform/notify/notice_text.h"
#include "platform/notify/titled.h"

// The notice helper: shows its client's notices on the desktop. Standard input is the socket to the
// client, the first argument the client's name. It ends when its client has and nothing waits to be
// shown; what is on screen stays there. With the second argument --titled it shows one notice of a
// tool.

int main(int argc, char** argv) {
  const bool isTitled = argc == 3 && std::strcmp(argv[2], "--titled") == 0;
  if (argc != 2 && !isTitled) {
    std::fputs("vlt-notify is started by programs that show notices.\n", stderr);
    return 2;
  }
  // The log entries are the client's.
  program_invocation_short_name = argv[1];
  if (isTitled) return ShowTitledNotice(STDIN_FILENO, argv[1]);
  sd_event* loop = nullptr;
  if (sd_event_new(&loop) < 0) return 1;
  int status = 1;
  {
    Client client(STDIN_FILENO);
    Desktop desktop(loop, &client, NoticeAppName(argv[1]));
    if (client.Serve(loop, &desktop)) {
      status = 0;
      while (status == 0 && (!client.HasEnded() || desktop.IsBusy())) {
        if (sd_event_run(loop, UINT64_MAX) < 0) status = 1;
      }
    }
  }
  sd_event_unref(loop);
  return status;
}
