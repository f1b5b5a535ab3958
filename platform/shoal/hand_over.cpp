// SPDX-License-Identifier: Apache-2.0
#include "shoal/hand_over.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Shoal {
namespace {

struct Message {
  char byte = 'e';
  iovec data{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};

  Message() {
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }
};

}  // namespace

bool handOver(int socket, int descriptor) {
  Message message;
  cmsghdr* const rights = CMSG_FIRSTHDR(&message.header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  return sendmsg(socket, &message.header, MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

int takeOver(int socket, bool& ended) {
  Message message;
  ssize_t const bytes = recvmsg(socket, &message.header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  ended = bytes == 0 || (bytes < 0 && errno != EAGAIN && errno != EINTR);
  if (bytes != 1) return -1;
  cmsghdr const* const rights = CMSG_FIRSTHDR(&message.header);
  if (!rights || rights->cmsg_type != SCM_RIGHTS || rights->cmsg_len != CMSG_LEN(sizeof(int))) {
    ended = true;
    return -1;
  }
  int descriptor;
  std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
  return descriptor;
}

}  // namespace Shoal
