#include "program/message.h"

#include <sys/socket.h>

#include <cerrno>

namespace qx::postgresql {
namespace {

bool read_all(int socket, char* to, std::size_t size) {
  while (size > 0) {
    const ssize_t got = ::recv(socket, to, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    to += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

bool write_all(int socket, const char* from, std::size_t size) {
  while (size > 0) {
    const ssize_t put = ::send(socket, from, size, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    from += put;
    size -= static_cast<std::size_t>(put);
  }
  return true;
}

}  // namespace

bool receive(int socket, QxHeader& header, std::vector<char>& body) {
  if (!read_all(socket, reinterpret_cast<char*>(&header), sizeof header)) return false;
  if (header.size > QX_LARGEST_MESSAGE) return false;
  body.resize(header.size);
  return read_all(socket, body.data(), body.size());
}

bool send(int socket, std::uint32_t kind, std::span<const char> body) {
  const QxHeader header = {static_cast<std::uint32_t>(body.size()), kind};
  const char* const bytes = reinterpret_cast<const char*>(&header);
  std::vector<char> whole(bytes, bytes + sizeof header);
  whole.insert(whole.end(), body.begin(), body.end());
  return write_all(socket, whole.data(), whole.size());
}

}  // namespace qx::postgresql
