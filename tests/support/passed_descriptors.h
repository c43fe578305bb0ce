#pragma once

#include <sys/socket.h>

#include <cstring>
#include <string_view>
#include <vector>

// Sends bytes on a socket together with at most eight file descriptors, or none. Returns the result
// of sendmsg.
inline ssize_t SendPassing(int socket, std::string_view bytes, const std::vector<int>& passed) {
  iovec piece = {const_cast<char*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  if (const size_t size = passed.size() * sizeof(int); size > 0) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(size);
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(rights), passed.data(), size);
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL);
}
