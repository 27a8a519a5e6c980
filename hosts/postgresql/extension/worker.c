/*
 * The worker of a database. It starts the program, loads the table of each index into it, and then
 * brings it from one snapshot to the next by reading the rows again that the log names. It ends
 * with the program, and the next search starts another. Whatever is wrong with a table is told to
 * the program, which refuses searches with it.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "access/genam.h"
#include "access/htup_details.h"
#include "access/table.h"
#include "access/tableam.h"
#include "access/transam.h"
#include "access/xact.h"
#include "access/xlog.h"
#include "catalog/pg_database.h"
#include "catalog/pg_trigger.h"
#include "catalog/pg_type.h"
#include "executor/spi.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "nodes/pg_list.h"
#include "pgstat.h"
#include "postmaster/bgworker.h"
#include "postmaster/interrupt.h"
#include "storage/latch.h"
#include "storage/lmgr.h"
#include "storage/procarray.h"
#include "tcop/tcopprot.h"
#include "utils/builtins.h"
#include "utils/guc.h"
#include "utils/lsyscache.h"
#include "utils/memutils.h"
#include "utils/snapmgr.h"
#include "utils/timestamp.h"

#define IDLE_MILLISECONDS 1000 /* commits and searches wake it earlier */
#define PAUSE_MILLISECONDS 5   /* in which commits come together */
#define PRUNE_SECONDS 10
#define MISSING_SECONDS 60 /* for which the extension may be missing */
#define RETRY_SECONDS 10

typedef struct Loaded {
  Oid table;
  bool ready;
  bool seen; /* in the latest list of indexes */
  int32 dim;
  TimestampTz failed_at; /* or 0 */
  QxSnapshot rows;       /* what its rows are of */
} Loaded;

/* Whatever the server, or the database, has. A standby that lags must not hold the worker up. */
static const char* const settings[][2] = {{"search_path", "pg_catalog, pg_temp"},
                                          {"default_transaction_isolation", "read committed"},
                                          {"default_transaction_read_only", "off"},
                                          {"lock_timeout", "0"},
                                          {"synchronous_commit", "off"}};

static int program = -1;
static bool owed;                     /* an answer is outstanding */
static bool amid_message;             /* which is half written or read */
static bool log_has_strangers = true; /* entries of tables without an index */
static List* loaded;                  /* of Loaded */

PGDLLEXPORT void qx_worker(Datum database);

/* ---- The program --------------------------------------------------------------------------- */

/* After fork only calls that are safe there: this is a copy of the worker. */
static void become_program(int socket, const char* path, const char* name) {
  int last = (int)sysconf(_SC_OPEN_MAX);
  sigset_t none;
  dup2(socket, 3);
  if (last < 0 || last > 65536) last = 65536;
  for (int i = 4; i < last; i++) close(i);
  fcntl(3, F_SETFD, 0);
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);
  execl(path, path, name, (char*)NULL);
  _exit(127);
}

static void fail_in(const char* call) {
  int saved = errno;
  ereport(ERROR, errmsg("qx: %s: %s", call, strerror(saved)));
}

static void start_program(void) {
  char path[MAXPGPATH], name[QX_SOCKET_LENGTH], ready;
  int ends[2];
  pid_t pid;
  snprintf(path, sizeof path, "%s/qx-postgresql", pkglib_path);
  qx_socket_name(name);
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    fail_in("socketpair");
  }
  pid = fork();
  if (pid < 0) fail_in("fork");
  if (pid == 0) become_program(ends[1], path, name);
  close(ends[1]);
  program = ends[0];
  if (recv(program, &ready, 1, 0) != 1) {
    ereport(ERROR, errmsg("qx: the program %s does not start", path));
  }
  if (fcntl(program, F_SETFL, O_NONBLOCK) != 0) fail_in("fcntl");
}

static void wait_for(int events, long milliseconds) {
  int woken = WaitLatchOrSocket(MyLatch, WL_LATCH_SET | WL_EXIT_ON_PM_DEATH | events, program,
                                milliseconds, PG_WAIT_EXTENSION);
  if (woken & WL_LATCH_SET) ResetLatch(MyLatch);
  CHECK_FOR_INTERRUPTS();
}

static void transfer(char* bytes, size_t size, bool write) {
  amid_message = true;
  while (size > 0) {
    ssize_t n = write ? send(program, bytes, size, MSG_NOSIGNAL) : recv(program, bytes, size, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      wait_for(write ? WL_SOCKET_WRITEABLE : WL_SOCKET_READABLE, -1);
      continue;
    }
    if (n <= 0) ereport(FATAL, errmsg("qx: the program has ended"));
    bytes += n;
    size -= (size_t)n;
  }
  amid_message = false;
}

/* Gives why the program refuses, or null. */
static const char* take_answer(void) {
  QxHeader header;
  char* answer;
  uint64 bytes;
  if (!owed) return NULL;
  owed = false;
  transfer((char*)&header, sizeof header, false);
  answer = palloc0(header.size + 1);
  transfer(answer, header.size, false);
  if (header.kind != QX_ANSWER) return answer + sizeof(int32);
  memcpy(&bytes, answer, sizeof bytes);
  bytes = qx_note_bytes(bytes);
  return qx_memory_limit == 0 || bytes <= (uint64)qx_memory_limit << 20
             ? NULL
             : "the indexes of the server take more memory than qx.memory_limit";
}

/* Gives what is wrong with this message or the one before: the program works on one meanwhile. */
static const char* tell(uint32 kind, StringInfo body) {
  QxHeader header = {(uint32)body->len, kind};
  const char* problem = take_answer();
  if (problem != NULL) return problem;
  transfer((char*)&header, sizeof header, true);
  transfer(body->data, (size_t)body->len, true);
  resetStringInfo(body);
  owed = true;
  return kind == QX_CHANGE ? NULL : take_answer();
}

/* ---- One table ----------------------------------------------------------------------------- */

static const char* send_rows(QxRowsMessage* rows, Oid table, StringInfo message) {
  resetStringInfo(message);
  qx_put(message, uint32, table);
  qx_rows_write(rows, message);
  return tell(QX_CHANGE, message);
}

static const char* tell_snapshot(uint32 kind, Oid table, Relation relation, Snapshot snapshot,
                                 StringInfo message) {
  resetStringInfo(message);
  qx_put(message, uint32, table);
  qx_write_snapshot(message, snapshot, relation->rd_node.relNode);
  return tell(kind, message);
}

static const char* publish(Loaded* index, Relation table, Snapshot snapshot, StringInfo message) {
  const char* problem = tell_snapshot(QX_PUBLISH, index->table, table, snapshot, message);
  MemoryContext before = MemoryContextSwitchTo(TopMemoryContext);
  if (index->rows.running != NULL) pfree(index->rows.running);
  index->rows = qx_snapshot_of(snapshot, table->rd_node.relNode);
  MemoryContextSwitchTo(before);
  index->ready = problem == NULL;
  return problem;
}

static const char* load(Loaded* index, const QxDefinition* d, Relation table, Snapshot snapshot,
                        StringInfo message) {
  TupleTableSlot* slot = table_slot_create(table, NULL);
  TableScanDesc scan;
  QxRowsMessage* rows;
  const char* problem;
  index->ready = false;
  index->dim = d->dim > 0 ? d->dim : qx_find_dim(table, d, snapshot);
  rows = qx_rows_new(d, index->dim);
  resetStringInfo(message);
  qx_put(message, uint32, d->table);
  qx_put(message, int64, (int64)qx_memory_limit << 20);
  qx_put(message, int64, (int64)Max(table->rd_rel->reltuples, 0));
  qx_write_schema(message, d, index->dim, table);
  problem = tell(QX_DEFINE, message);
  scan = table_beginscan(table, snapshot, 0, NULL);
  while (problem == NULL && index->dim > 0 &&
         table_scan_getnextslot(scan, ForwardScanDirection, slot)) {
    problem = qx_rows_add(rows, slot);
    if (problem == NULL && qx_rows_full(rows)) problem = send_rows(rows, d->table, message);
    CHECK_FOR_INTERRUPTS();
  }
  if (problem == NULL && qx_rows_count(rows) > 0) problem = send_rows(rows, d->table, message);
  table_endscan(scan);
  ExecDropSingleTupleTableSlot(slot);
  return problem != NULL ? problem : publish(index, table, snapshot, message);
}

static const char* catch_up(Loaded* index, const QxDefinition* d, Relation table, Snapshot snapshot,
                            const QxChanges* changes, StringInfo message) {
  QxRowsMessage* rows = qx_rows_new(d, index->dim);
  const int at_once = 1000;
  if (changes->count > 0) {
    const char* problem = tell_snapshot(QX_BEGIN, index->table, table, snapshot, message);
    if (problem != NULL) return problem;
  }
  for (int i = 0; i < changes->count; i += at_once) {
    int n = Min(at_once, changes->count - i);
    const char* problem = qx_rows_fetch(rows, table, snapshot, changes->keys + i, n);
    qx_rows_remove(rows, changes->keys + i, n);
    if (problem == NULL) problem = send_rows(rows, d->table, message);
    if (problem != NULL) return problem;
    CHECK_FOR_INTERRUPTS();
  }
  return publish(index, table, snapshot, message);
}

static const char* refresh(Loaded* index, Relation table, StringInfo message) {
  Snapshot snapshot = GetActiveSnapshot();
  QxDefinition d = *qx_definition(table);
  QxChanges changes;
  if (!d.exists || !d.complete) return NULL; /* back ends refuse to search */
  if (!index->ready || index->rows.horizon.relation_file != table->rd_node.relNode ||
      (index->dim == 0 && d.dim > 0)) {
    return load(index, &d, table, snapshot, message);
  }
  changes = qx_changes_between(&d, snapshot,
                               (QxSnapshot[]){index->rows, qx_snapshot_of(snapshot, 0)}, 2, false);
  if (changes.count == 0 && !changes.all) return NULL;
  if (changes.all || (index->dim == 0 && changes.count > 0)) {
    return load(index, &d, table, snapshot, message);
  }
  return catch_up(index, &d, table, snapshot, &changes, message);
}

static void fail(Loaded* index, const char* problem) {
  StringInfoData message;
  index->ready = false;
  index->failed_at = GetCurrentTimestamp();
  (void)take_answer();
  initStringInfo(&message);
  qx_put(&message, uint32, index->table);
  qx_write_text(&message, problem);
  tell(QX_FAIL, &message);
  pfree(message.data);
}

/* In a transaction with one snapshot, taken once the table can no longer be rewritten. */
static void bring_up_to_date(Loaded* index) {
  StringInfoData message;
  Relation table;
  const char* problem;
  StartTransactionCommand();
  XactIsoLevel = XACT_REPEATABLE_READ;
  if (!ConditionalLockRelationOid(index->table, AccessShareLock)) {
    CommitTransactionCommand();
    return;
  }
  table = try_relation_open(index->table, NoLock);
  if (table != NULL) {
    initStringInfo(&message);
    PushActiveSnapshot(GetTransactionSnapshot());
    problem = refresh(index, table, &message);
    if (problem != NULL) fail(index, problem);
    PopActiveSnapshot();
    relation_close(table, NoLock);
  }
  CommitTransactionCommand();
}

/* What is wrong with one table must not keep the others from being searched. */
static void visit(Loaded* index) {
  MemoryContext before = CurrentMemoryContext;
  PG_TRY();
  { bring_up_to_date(index); }
  PG_CATCH();
  {
    ErrorData* error;
    if (amid_message) PG_RE_THROW();
    MemoryContextSwitchTo(before);
    error = CopyErrorData();
    EmitErrorReport();
    FlushErrorState();
    AbortCurrentTransaction();
    fail(index, error->message);
    FreeErrorData(error);
  }
  PG_END_TRY();
}

/* ---- All tables ---------------------------------------------------------------------------- */

static Loaded* find_or_add(Oid table) {
  MemoryContext before = MemoryContextSwitchTo(TopMemoryContext);
  Loaded* index;
  ListCell* cell;
  foreach (cell, loaded) {
    index = lfirst(cell);
    if (index->table == table) break;
  }
  if (cell == NULL) {
    index = palloc0(sizeof *index);
    index->table = table;
    loaded = lappend(loaded, index);
  }
  MemoryContextSwitchTo(before);
  return index;
}

/* Marks the indexes that there are, and adds new ones. False without the extension. */
static bool list_indexes(void) {
  StringInfoData query;
  ListCell* cell;
  bool found;
  qx_relations_changed = false;
  foreach (cell, loaded) ((Loaded*)lfirst(cell))->seen = false;
  StartTransactionCommand();
  PushActiveSnapshot(GetTransactionSnapshot());
  found = qx_object("changes") != InvalidOid;
  if (found) {
    SPI_connect();
    initStringInfo(&query);
    appendStringInfoString(&query,
                           "SELECT tgrelid FROM pg_catalog.pg_trigger WHERE NOT tgisinternal AND "
                           "tgfoid = 'qx.declare_columns'::pg_catalog.regproc");
    SPI_execute(query.data, true, 0);
    for (uint64 i = 0; i < SPI_processed; i++) {
      bool null;
      find_or_add(
          DatumGetObjectId(SPI_getbinval(SPI_tuptable->vals[i], SPI_tuptable->tupdesc, 1, &null)))
          ->seen = true;
    }
    SPI_finish();
  }
  PopActiveSnapshot();
  CommitTransactionCommand();
  return found;
}

static void drop_index(Loaded* index) {
  StringInfoData message;
  log_has_strangers = true;
  initStringInfo(&message);
  qx_put(&message, uint32, index->table);
  tell(QX_DROP, &message); /* which need not have been defined */
  pfree(message.data);
  if (index->rows.running != NULL) pfree(index->rows.running);
  pfree(index);
}

static void visit_indexes(void) {
  ListCell* cell;
  foreach (cell, loaded) {
    Loaded* index = lfirst(cell);
    bool retry =
        index->failed_at == 0 ||
        TimestampDifferenceExceeds(index->failed_at, GetCurrentTimestamp(), RETRY_SECONDS * 1000);
    if (!index->seen) {
      loaded = foreach_delete_current(loaded, cell);
      drop_index(index);
      continue;
    }
    if (retry) {
      index->failed_at = 0;
      visit(index);
    }
  }
}

/* Removes entries that every snapshot agrees about, which any process may still hold. */
static void prune(const Loaded* index) {
  Oid types[] = {OIDOID, INT8OID};
  Datum values[2];
  Relation log;
  uint64 until;
  StartTransactionCommand();
  PushActiveSnapshot(GetTransactionSnapshot());
  log = table_open(qx_object("changes"), AccessShareLock);
  until = qx_full_xid(GetOldestNonRemovableTransactionId(log));
  if (index->ready) until = Min(until, index->rows.horizon.xmin); /* else all rows are read anew */
  table_close(log, AccessShareLock);
  values[0] = ObjectIdGetDatum(index->table);
  values[1] = Int64GetDatum((int64)until);
  SPI_connect();
  SPI_execute_with_args("SELECT FROM qx.changes WHERE relation = $1 AND xid < $2 LIMIT 1", 2, types,
                        values, NULL, true, 1);
  if (SPI_processed > 0) {
    SPI_execute_with_args(
        "INSERT INTO qx.tables AS t (relation, pruned) VALUES ($1, $2) ON CONFLICT "
        "(relation) DO UPDATE SET pruned = greatest(t.pruned, excluded.pruned)",
        2, types, values, NULL, false, 0);
    SPI_execute_with_args("DELETE FROM qx.changes WHERE relation = $1 AND xid < $2", 2, types,
                          values, NULL, false, 0);
  }
  SPI_finish();
  PopActiveSnapshot();
  CommitTransactionCommand();
}

static void remove_strangers(void) {
  static const char* const tables[] = {"changes", "tables"};
  char statement[200];
  StartTransactionCommand();
  PushActiveSnapshot(GetTransactionSnapshot());
  SPI_connect();
  for (size_t i = 0; qx_object("changes") != InvalidOid && i < lengthof(tables); i++) {
    snprintf(statement, sizeof statement,
             "DELETE FROM qx.%s WHERE relation NOT IN (SELECT tgrelid FROM pg_trigger "
             "WHERE tgfoid = 'qx.declare_columns'::regproc)",
             tables[i]);
    SPI_execute(statement, false, 0);
  }
  SPI_finish();
  PopActiveSnapshot();
  CommitTransactionCommand();
  log_has_strangers = false;
}

static void prune_all(void) {
  static TimestampTz latest = 0;
  ListCell* cell;
  if (RecoveryInProgress() ||
      !TimestampDifferenceExceeds(latest, GetCurrentTimestamp(), PRUNE_SECONDS * 1000)) {
    return;
  }
  latest = GetCurrentTimestamp();
  foreach (cell, loaded) {
    prune(lfirst(cell));
  }
  if (log_has_strangers) remove_strangers();
}

/* One worker a database: its lock is of a class that advisory locks of users do not have. */
static bool is_only_worker(void) {
  LOCKTAG tag;
  SET_LOCKTAG_ADVISORY(tag, MyDatabaseId, 0, 0, 0x7178);
  return LockAcquire(&tag, ExclusiveLock, true, true) != LOCKACQUIRE_NOT_AVAIL;
}

/* Whoever drops, renames or copies the database waits until nobody is connected to it. */
static bool must_leave_database(void) {
  LOCKTAG tag;
  SET_LOCKTAG_OBJECT(tag, InvalidOid, DatabaseRelationId, MyDatabaseId, 0);
  if (LockAcquire(&tag, RowExclusiveLock, true, true) == LOCKACQUIRE_NOT_AVAIL) return true;
  LockRelease(&tag, RowExclusiveLock, true);
  return false;
}

/* A back end may wait that has not committed CREATE EXTENSION yet. */
static bool is_wanted(void) {
  static TimestampTz found = 0;
  StartTransactionCommand(); /* which takes note of changed relations */
  CommitTransactionCommand();
  if (!qx_relations_changed || list_indexes()) {
    found = GetCurrentTimestamp();
    return true;
  }
  qx_relations_changed = true;
  if (found == 0) found = GetCurrentTimestamp();
  return !TimestampDifferenceExceeds(found, GetCurrentTimestamp(), MISSING_SECONDS * 1000);
}

void qx_worker(Datum database) {
  pqsignal(SIGTERM, die);
  pqsignal(SIGHUP, SignalHandlerForConfigReload);
  BackgroundWorkerUnblockSignals();
  BackgroundWorkerInitializeConnectionByOid(DatumGetObjectId(database), InvalidOid, 0);
  if (!is_only_worker()) return;
  for (size_t i = 0; i < lengthof(settings); i++) {
    SetConfigOption(settings[i][0], settings[i][1], PGC_SUSET, PGC_S_OVERRIDE);
  }
  qx_enter_worker();
  start_program();
  while (recv(program, &(char){0}, 1, MSG_PEEK) != 0 && !must_leave_database() && is_wanted()) {
    visit_indexes();
    prune_all();
    pgstat_report_stat(true);
    pgstat_report_activity(STATE_IDLE, NULL);
    (void)WaitLatch(NULL, WL_TIMEOUT | WL_EXIT_ON_PM_DEATH, PAUSE_MILLISECONDS, PG_WAIT_EXTENSION);
    wait_for(WL_TIMEOUT | WL_SOCKET_READABLE, IDLE_MILLISECONDS);
    if (ConfigReloadPending) {
      ConfigReloadPending = false;
      ProcessConfigFile(PGC_SIGHUP);
    }
  }
}
