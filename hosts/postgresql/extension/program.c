/* A back end's connection to the program, and how a worker is started that starts the program. */
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "extension/qx.h"
#include "miscadmin.h"
#include "pgstat.h"
#include "postmaster/bgworker.h"
#include "storage/latch.h"
#include "utils/wait_event.h"

static int connection = -1;
static bool busy; /* an answer is outstanding: its reader was cancelled */

/* Relative to the data directory, where every process of the server stands. */
void qx_socket_name(char* name) {
  snprintf(name, QX_SOCKET_LENGTH, "pg_stat_tmp/qx.%u", MyDatabaseId);
}

static void disconnect(void) {
  if (connection >= 0) close(connection);
  connection = -1;
  busy = false;
}

static bool connect_once(void) {
  struct sockaddr_un address = {0};
  address.sun_family = AF_UNIX;
  qx_socket_name(address.sun_path);
  connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return false;
  if (connect(connection, (struct sockaddr*)&address, sizeof address) == 0 &&
      fcntl(connection, F_SETFL, O_NONBLOCK) == 0) {
    return true;
  }
  disconnect();
  return false;
}

static void wait_for(int events, long milliseconds) {
  int woken = WaitLatchOrSocket(MyLatch, WL_LATCH_SET | WL_EXIT_ON_PM_DEATH | events,
                                events & WL_TIMEOUT ? PGINVALID_SOCKET : connection, milliseconds,
                                PG_WAIT_EXTENSION);
  if (woken & WL_LATCH_SET) ResetLatch(MyLatch);
  CHECK_FOR_INTERRUPTS();
}

static void start_worker(void) {
  BackgroundWorker worker = {0};
  BackgroundWorkerHandle* handle;
  worker.bgw_flags = BGWORKER_SHMEM_ACCESS | BGWORKER_BACKEND_DATABASE_CONNECTION;
  worker.bgw_start_time = BgWorkerStart_ConsistentState;
  worker.bgw_restart_time = BGW_NEVER_RESTART;
  strlcpy(worker.bgw_library_name, "qx", BGW_MAXLEN);
  strlcpy(worker.bgw_function_name, "qx_worker", BGW_MAXLEN);
  snprintf(worker.bgw_name, BGW_MAXLEN, "qx worker of database %u", MyDatabaseId);
  strlcpy(worker.bgw_type, "qx worker", BGW_MAXLEN);
  worker.bgw_main_arg = ObjectIdGetDatum(MyDatabaseId);
  if (!RegisterDynamicBackgroundWorker(&worker, &handle)) {
    ereport(ERROR, errcode(ERRCODE_INSUFFICIENT_RESOURCES),
            errmsg("no background worker is free for qx"), errhint("Raise max_worker_processes."));
  }
}

/* Another back end may have started one; of two workers one ends at once. */
static void connect_to_program(void) {
  int attempt;
  if (busy) disconnect();
  if (connection >= 0 || connect_once()) return;
  for (attempt = 0; attempt < 1000; attempt++) {
    if (attempt % 200 == 0) start_worker();
    wait_for(WL_TIMEOUT, 10);
    if (connect_once()) return;
  }
  ereport(ERROR, errcode(ERRCODE_CONNECTION_FAILURE), errmsg("the program of qx does not start"),
          errhint("The server's log says why."));
}

static bool write_all(const char* from, size_t size) {
  while (size > 0) {
    ssize_t put = send(connection, from, size, MSG_NOSIGNAL);
    if (put < 0 && (errno == EAGAIN || errno == EINTR)) {
      wait_for(WL_SOCKET_WRITEABLE, -1);
      continue;
    }
    if (put <= 0) return false;
    from += put;
    size -= (size_t)put;
  }
  return true;
}

static bool read_all(char* to, size_t size) {
  while (size > 0) {
    ssize_t got = recv(connection, to, size, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
      wait_for(WL_SOCKET_READABLE, -1);
      continue;
    }
    if (got <= 0) return false;
    to += got;
    size -= (size_t)got;
  }
  return true;
}

static bool exchange(uint32 kind, StringInfo body, StringInfo answer, uint32* status) {
  QxHeader header = {(uint32)body->len, kind};
  bool done;
  busy = true;
  done = write_all((char*)&header, sizeof header) && write_all(body->data, (size_t)body->len) &&
         read_all((char*)&header, sizeof header);
  if (!done || header.size > QX_LARGEST_MESSAGE) return false;
  resetStringInfo(answer);
  enlargeStringInfo(answer, (int)header.size);
  if (!read_all(answer->data, header.size)) return false;
  answer->len = (int)header.size;
  busy = false;
  *status = header.kind;
  return true;
}

uint32 qx_ask(uint32 kind, StringInfo body, StringInfo answer) {
  uint32 status;
  bool first = kind == QX_SEARCH || kind == QX_SCAN; /* nothing is lost if it is asked again */
  bool old;
  if (body->len > (int)QX_LARGEST_MESSAGE) {
    ereport(ERROR, errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED),
            errmsg("too much for one message of qx"));
  }
  old = connection >= 0 && !busy;
  if (first) connect_to_program();
  if (connection < 0 || !exchange(kind, body, answer, &status)) {
    disconnect();
    if (!first || !old) goto lost;
    connect_to_program();
    if (!exchange(kind, body, answer, &status)) {
      disconnect();
      goto lost;
    }
  }
  if (status == QX_FAILED || (status == QX_REFUSED && kind != QX_SEARCH)) {
    int32 size;
    memcpy(&size, answer->data, sizeof size);
    ereport(ERROR, errcode(ERRCODE_INVALID_PARAMETER_VALUE),
            errmsg("qx: %s", pnstrdup(answer->data + sizeof size, (Size)size)));
  }
  return status;
lost:
  ereport(ERROR, errcode(ERRCODE_CONNECTION_FAILURE), errmsg("the program of qx has ended"),
          errhint("The next search starts it and loads the index again."));
}

bool qx_try_ask(uint32 kind, StringInfo body, StringInfo answer) {
  uint32 status;
  if (busy) disconnect();
  if (connection < 0 && !connect_once()) return false;
  if (exchange(kind, body, answer, &status) && status == QX_ANSWER) return true;
  disconnect();
  return false;
}

void qx_tell(uint32 kind) {
  QxHeader header = {0, kind};
  if (connection >= 0 && !busy && !write_all((char*)&header, sizeof header)) disconnect();
}
