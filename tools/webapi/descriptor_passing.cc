#include "tools/webapi/descriptor_passing.h"

#include <string.h>
#include <sys/socket.h>

namespace webapi {
namespace {

// A note longer than this is cut; error codes are a few words.
constexpr size_t kNoteBytes = 255;

}  // namespace

bool SendDescriptor(int socket, int fd, const std::string& note) {
  // The first byte tells whether a descriptor comes; a note follows it.
  std::string payload(1, fd >= 0 ? 1 : 0);
  if (fd < 0) payload += note.substr(0, kNoteBytes);
  iovec data = {payload.data(), payload.size()};
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
  return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(payload.size());
}

int ReceiveDescriptor(int socket, std::string* note) {
  note->clear();
  char payload[kNoteBytes + 1] = {};
  iovec data = {payload, sizeof(payload)};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  if (got < 1) return -1;
  if (payload[0] != 1) {
    note->assign(payload + 1, static_cast<size_t>(got - 1));
    return -1;
  }
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return -1;
  int fd = -1;
  memcpy(&fd, CMSG_DATA(header), sizeof(int));
  return fd;
}

}  // namespace webapi
