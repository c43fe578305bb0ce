#pragma once

// Shows one titled notice, which arrives as the first message on `socket`, and reports what becomes
// of it (titled_notice.h). It goes to the log, under this program's name, if the desktop does not
// show it or ends before anybody has dismissed it. Returns when the notice has ended, or as soon as
// the client has; the notice then stays on screen. The result is an exit status.
int ShowTitledNotice(int socket, const char* appName);
