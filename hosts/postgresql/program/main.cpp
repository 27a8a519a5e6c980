// The program that holds the vectors of a database: qx-postgresql SOCKET, with the worker on
// descriptor 3. It ends with the worker, and needs nothing of the server but the two sockets.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "program/indexes.h"

namespace {

constexpr int kWorker = 3;

int listen_at(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  path.copy(address.sun_path, path.size());
  const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::unlink(path.c_str());
  ::umask(0077);  // connections of the server's own user alone
  if (::bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening, 1024) != 0) {
    return -1;
  }
  return listening;
}

void accept_all(int listening, qx::postgresql::Indexes& indexes) {
  for (;;) {
    const int socket = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
      ::usleep(10000);  // too many are open
      continue;
    }
    try {
      std::thread([socket, &indexes] {
        qx::postgresql::serve_back_end(socket, indexes);
        ::close(socket);
      }).detach();
    } catch (const std::system_error&) {
      ::close(socket);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: qx-postgresql SOCKET, started by the extension\n", stderr);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  static qx::postgresql::Indexes indexes;
  const int listening = listen_at(argv[1]);
  if (listening < 0) {
    std::perror(argv[1]);
    return 1;
  }
  std::thread(accept_all, listening, std::ref(indexes)).detach();
  const char ready = 1;
  if (::write(kWorker, &ready, 1) == 1) qx::postgresql::serve_worker(kWorker, indexes);
  ::unlink(argv[1]);
  std::_Exit(0);  // threads of connections still run
}
