// A peer that sends anything, divided anyhow, gets at most one answer, and a whole one.

#include "FuzzInput.h"
#include "FuzzedServer.h"

using namespace kestrune;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto pieces = fuzzPieces(data, size);
  std::string whole;
  for (const auto& piece : pieces) whole += piece;

  if (const auto request = HTTPRequest::parse(whole)) {
    require(request->target.starts_with('/'), "a target begins with a slash");
    require(request->method.find(' ') == std::string::npos, "a method has no space");
    for (const auto& [name, value] : request->headers) {
      require(!name.empty() && name.find_first_of(":\t ABCDEFGHIJKLMNOPQRSTUVWXYZ") != 0,
              "a name is trimmed");
    }
    request->bearerToken();
  }

  auto& server = FuzzedServer::shared();
  const auto connection = server.connect();
  for (const auto& piece : pieces) connection->deliver(piece);
  server.run();
  const auto& sent = connection->sent;
  if (!sent.empty()) {
    require(sent.starts_with("HTTP/1.1 "), "an answer is HTTP");
    const auto head = sent.find("\r\n\r\n");
    require(head != std::string::npos, "an answer has a whole head");
    if (!sent.starts_with("HTTP/1.1 101 ")) {
      const auto length = sent.find("\r\nContent-Length: ");
      require(length < head, "an answer has a length");
      require(head + 4 + std::stoul(sent.substr(length + 18)) == sent.size(),
              "an answer is alone, and whole");
      require(connection->cancelled, "an answer ends the connection");
    }
  } else {
    require(whole.find("\r\n\r\n") == std::string::npos || whole.starts_with("GET"),
            "a whole request is answered");
    require(whole.size() <= 16'384 || whole.find("\r\n\r\n") != std::string::npos, "a head has a limit");
  }
  server.finish(connection);
  return 0;
}
