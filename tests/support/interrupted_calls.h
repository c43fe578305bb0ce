#pragma once

// Signals that interrupt system calls, without a race: a test program that lists
// interrupted_calls.cpp among its sources has a layer over the calls that can wait on a socket
// (accept4, connect, recv, recvmsg, send, sendmsg, poll, epoll_wait). The layer lets a call fail
// with EINTR before it has done anything, as a handler without SA_RESTART would. Any thread. For
// native, dynamically linked test programs.

// From now on one of `interval` of these calls is interrupted, in an order without a period, so
// that alternating calls are all interrupted. With 0 no call is.
void InterruptCalls(int interval);

// The next `count` calls of epoll_ctl that add a descriptor, or of getsockopt, fail with `error`.
void FailNextWatches(int count, int error);
void FailNextSocketOptions(int count, int error);
