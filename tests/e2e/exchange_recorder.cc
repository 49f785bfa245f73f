#include "exchange_recorder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <strings.h>
#include <unistd.h>

#include <cstdlib>

namespace {

// The running test as "Suite.Name", "" outside a test.
std::string currentTest() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  if (info == nullptr) return std::string();
  return std::string(info->test_suite_name()) + "." + info->name();
}

// The value of header `name` in a head of "Name: value\r\n" lines.
std::string headerIn(const std::string& head, const char* name) {
  const size_t nameLength = std::char_traits<char>::length(name);
  size_t pos = head.find("\r\n");
  while (pos != std::string::npos && pos + 2 < head.size()) {
    const size_t start = pos + 2;
    const size_t end = head.find("\r\n", start);
    const std::string line =
        head.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (line.size() > nameLength && line[nameLength] == ':' &&
        strncasecmp(line.c_str(), name, nameLength) == 0) {
      size_t value = nameLength + 1;
      while (value < line.size() && line[value] == ' ') ++value;
      return line.substr(value);
    }
    pos = end;
  }
  return std::string();
}

}  // namespace

void recordExchange(const std::string& method, const std::string& target, int status,
                    const std::string& contentType, const std::string& body) {
  const char* path = std::getenv("NOX_RECORD_EXCHANGES");  // NOLINT(concurrency-mt-unsafe)
  if (path == nullptr || *path == '\0') return;
  Json::Value line(Json::objectValue);
  line["method"] = method;
  line["target"] = target;
  line["status"] = status;
  line["contentType"] = contentType;
  line["body"] = body;
  line["test"] = currentTest();
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  const std::string text = Json::writeString(builder, line) + "\n";
  // O_APPEND and one write: test programs that run at once never mix lines.
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    ADD_FAILURE() << "cannot open " << path << " to record the exchange";
    return;
  }
  const ssize_t written = write(fd, text.data(), text.size());
  close(fd);
  if (written != static_cast<ssize_t>(text.size())) {
    ADD_FAILURE() << "cannot record the exchange in " << path;
  }
}

void recordRawAnswer(const std::string& request, const std::string& answer) {
  const size_t requestLineEnd = request.find("\r\n");
  const size_t headEnd = answer.find("\r\n\r\n");
  if (requestLineEnd == std::string::npos || headEnd == std::string::npos ||
      answer.compare(0, 9, "HTTP/1.1 ") != 0) {
    return;
  }
  const std::string requestLine = request.substr(0, requestLineEnd);
  const size_t methodEnd = requestLine.find(' ');
  const size_t targetEnd = requestLine.rfind(' ');
  if (methodEnd == std::string::npos || targetEnd <= methodEnd) return;
  const std::string head = answer.substr(0, headEnd);
  std::string body = answer.substr(headEnd + 4);
  const std::string length = headerIn(head, "Content-Length");
  if (!length.empty()) body = body.substr(0, std::strtoul(length.c_str(), nullptr, 10));
  recordExchange(requestLine.substr(0, methodEnd),
                 requestLine.substr(methodEnd + 1, targetEnd - methodEnd - 1),
                 std::atoi(answer.c_str() + 9), headerIn(head, "Content-Type"), body);
}
