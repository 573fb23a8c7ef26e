// The answer of one CGI request, written on the web server's connection.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>
#include <vector>

namespace webapi {

// Takes over the web server's connection from stdout, which then points
// elsewhere with stdin: nothing the library forks without exec keeps the
// response open. Standard error goes to `log` (appended; "" for none). A
// SIGTERM, SIGINT or SIGHUP (the client went away) stops writing; the request
// still closes what it started. False when the connection cannot be kept.
bool TakeResponse(const std::string& log);
// The connection, for a child to close.
int ResponseDescriptor();
// Whether the web server asked the request to stop.
bool Stopped();

bool WriteAll(const char* data, size_t size);
bool WriteAll(const std::string& text);
// The CGI head; `length` < 0 sends none.
void Head(int status, const std::string& type, long long length,
          const std::vector<std::string>& extra = {});
// A whole answer; these return the program's exit status.
int Answer(int status, const std::string& type, const std::string& body);
int AnswerJson(const Json::Value& body);
int Fail(int status, const std::string& code);
// A file's content (the first `limit` bytes when > 0); 404 when it cannot
// be read.
int SendFile(const std::string& path, const std::string& type, size_t limit = 0);

}  // namespace webapi
