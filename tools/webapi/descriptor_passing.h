// Handing a descriptor from one process to another over a Unix socket.
#pragma once

namespace webapi {

// Sends `fd` (or, for fd < 0, word that there is none). False when the
// message did not go.
bool SendDescriptor(int socket, int fd);

// The descriptor sent (close-on-exec here), or -1.
int ReceiveDescriptor(int socket);

}  // namespace webapi
