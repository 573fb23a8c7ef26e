#include "tools/webapi/descriptor_passing.h"

#include <string.h>
#include <sys/socket.h>

namespace webapi {

bool SendDescriptor(int socket, int fd) {
  char byte = fd >= 0 ? 1 : 0;
  iovec data = {&byte, 1};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  if (fd >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(int));
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL) == 1;
}

int ReceiveDescriptor(int socket) {
  char byte = 0;
  iovec data = {&byte, 1};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1 || byte != 1) return -1;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return -1;
  int fd = -1;
  memcpy(&fd, CMSG_DATA(header), sizeof(int));
  return fd;
}

}  // namespace webapi
