// Handing a descriptor from one process to another over a Unix socket.
#pragma once

#include <string>

namespace webapi {

// Sends `fd`, or, for fd < 0, word that there is none with a short `note`
// (why). False when the message did not go.
bool SendDescriptor(int socket, int fd, const std::string& note = "");

// The descriptor sent (close-on-exec here), or -1 with the sender's note in
// `note` ("" when it gave none or nothing came).
int ReceiveDescriptor(int socket, std::string* note);

}  // namespace webapi
