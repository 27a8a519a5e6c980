/*
 * One server that is asked: its options, which are those of its foreign server and of the caller's
 * user mapping, its connection, and what is awaited of it.
 */
#include "catalog/pg_type.h"
#include "commands/defrem.h"
#include "extension/shards.h"
#include "mb/pg_wchar.h"
#include "miscadmin.h"
#include "pgstat.h"
#include "port/pg_bswap.h"
#include "storage/fd.h"
#include "storage/latch.h"
#include "utils/builtins.h"
#include "utils/memutils.h"
#include "utils/timestamp.h"

int32 qx_shard_timeout = 10000; /* ms */
bool qx_partial_answers = false;

static List* known_shards; /* in TopMemoryContext, as what they have */

void qx_shard_disconnect(QxShard* s) {
  PQclear(s->answer);
  s->answer = NULL;
  if (s->connection != NULL) {
    PQfinish(s->connection);
    ReleaseExternalFD();
  }
  s->connection = NULL;
}

/* ---- Options of servers and user mappings -------------------------------------------------- */

/* postgres_fdw has refused what is neither libpq's nor its own. */
static bool is_of_libpq(const char* name) {
  static PQconninfoOption* known;
  const PQconninfoOption* option;
  if (known == NULL) known = PQconndefaults();
  if (known == NULL) ereport(ERROR, errcode(ERRCODE_OUT_OF_MEMORY), errmsg("out of memory"));
  for (option = known; option->keyword != NULL; option++) {
    if (strcmp(option->keyword, name) == 0) return true;
  }
  return false;
}

/* The last of a name counts. */
static void set_option(QxConnectionOptions* options, const char* name, const char* value) {
  int i = 0;
  while (i < options->n && strcmp(options->names[i], name) != 0) i++;
  if (i == QX_MOST_OPTIONS) {
    ereport(ERROR, errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED), errmsg("too many options of a server"));
  }
  options->names[i] = name;
  options->values[i] = value;
  options->n = Max(options->n, i + 1);
}

static const char* option_of(const QxConnectionOptions* options, const char* name) {
  for (int i = 0; i < options->n; i++) {
    if (strcmp(options->names[i], name) == 0) return options->values[i];
  }
  return "";
}

static QxConnectionOptions options_of(const ForeignServer* server, const UserMapping* user) {
  QxConnectionOptions options = {0};
  ListCell* cell;
  foreach (cell, list_concat_copy(server->options, user->options)) {
    DefElem* option = lfirst(cell);
    if (is_of_libpq(option->defname)) set_option(&options, option->defname, defGetString(option));
  }
  /* A server stops a search whose asker has gone. */
  set_option(
      &options, "options",
      psprintf("%s -c client_connection_check_interval=500", option_of(&options, "options")));
  set_option(&options, "client_encoding", GetDatabaseEncodingName());
  set_option(&options, "fallback_application_name", "qx");
  return options;
}

static const char* as_text(const QxConnectionOptions* options) {
  StringInfoData text;
  initStringInfo(&text);
  for (int i = 0; i < options->n; i++) {
    appendStringInfo(&text, "%s=%s\n", options->names[i], options->values[i]);
  }
  return text.data;
}

/* As with postgres_fdw, who is no superuser may not connect as what the server's own user is
   trusted to be. */
static bool must_use_password(const UserMapping* user) {
  ListCell* cell;
  if (superuser_arg(user->userid)) return false;
  foreach (cell, user->options) {
    DefElem* option = lfirst(cell);
    if (strcmp(option->defname, "password_required") == 0) return defGetBoolean(option);
  }
  return true;
}

static void require_password(const QxShard* s, bool used) {
  if (!s->must_use_password || used) return;
  ereport(ERROR, errcode(ERRCODE_S_R_E_PROHIBITED_SQL_STATEMENT_ATTEMPTED),
          errmsg("shard \"%s\" must be reached by a password", s->name),
          errdetail("A user that is no superuser connects by the password of a user mapping, "
                    "for which the server must ask."));
}

/* Texts are ordered by their bytes, there as here. */
static void require_encoding(const QxShard* s) {
  const char* encoding = PQparameterStatus(s->connection, "server_encoding");
  if (encoding != NULL && strcmp(encoding, GetDatabaseEncodingName()) == 0) return;
  ereport(ERROR, errcode(ERRCODE_FDW_ERROR),
          errmsg("the database of shard \"%s\" has another encoding", s->name));
}

/* ---- One shard ----------------------------------------------------------------------------- */

static int count_hosts(const QxShard* s) {
  const char* hosts = option_of(&s->options, "hostaddr");
  int n = 1;
  if (*hosts == '\0') hosts = option_of(&s->options, "host");
  for (; *hosts != '\0'; hosts++) n += *hosts == ',';
  return n;
}

/* What is no list is of all hosts. */
static const char* without_first(const char* list, int n) {
  const char* comma;
  for (; n > 0 && (comma = strchr(list, ',')) != NULL; n--) list = comma + 1;
  return list;
}

/* The shard is there no more, or has not been. */
static void give_up(QxShard* s, const char* why) {
  StringInfoData reason;
  initStringInfo(&reason);
  appendStringInfoString(&reason, why);
  while (reason.len > 0 && reason.data[reason.len - 1] == '\n') reason.data[--reason.len] = '\0';
  s->state = QX_DONE;
  qx_shard_disconnect(s);
  if (!qx_partial_answers) {
    ereport(ERROR, errcode(ERRCODE_CONNECTION_FAILURE),
            errmsg("shard \"%s\" does not answer", s->name), errdetail_internal("%s", reason.data),
            errhint("With qx.partial_answers, a search goes on without it."));
  }
  s->missing = reason.data;
}

static void ignore_notice(void* argument, const PGresult* notice) {
  (void)argument;
  (void)notice;
}

static void begin_connecting(QxShard* s) {
  static const char* const lists[] = {"host", "hostaddr", "port"};
  QxConnectionOptions options = s->options;
  const char* text = as_text(&options);
  for (size_t i = 0; i < lengthof(lists); i++) {
    const char* list = option_of(&options, lists[i]);
    if (*list != '\0') set_option(&options, lists[i], without_first(list, s->host));
  }
  qx_shard_disconnect(s);
  if (s->connected_by != NULL) pfree(s->connected_by);
  s->connected_by = NULL;
  s->connected_by = MemoryContextStrdup(TopMemoryContext, text);
  if (!AcquireExternalFD()) {
    ereport(ERROR, errcode(ERRCODE_INSUFFICIENT_RESOURCES),
            errmsg("no file is left for a connection to shard \"%s\"", s->name));
  }
  s->connection = PQconnectStartParams(options.names, options.values, 0);
  if (s->connection == NULL) {
    ReleaseExternalFD();
    ereport(ERROR, errcode(ERRCODE_OUT_OF_MEMORY), errmsg("out of memory"));
  }
  PQsetNoticeReceiver(s->connection, ignore_notice, NULL);
  s->state = QX_CONNECTING;
  s->reads = false;
  if (PQstatus(s->connection) == CONNECTION_BAD) give_up(s, PQerrorMessage(s->connection));
}

/* A server that was started again, or has failed over, is found by a new connection. */
static void lose(QxShard* s, const char* why) {
  if (s->state == QX_ASKED && !s->reconnected) {
    s->reconnected = true;
    s->host = 0;
    begin_connecting(s);
  } else {
    give_up(s, why);
  }
}

static bool says_that_it_is_gone(const char* code) {
  return strncmp(code, "08", 2) == 0 || strncmp(code, "57P", 3) == 0;
}

static void take_refusal(QxShard* s, const PGresult* refusal) {
  const char* code = PQresultErrorField(refusal, PG_DIAG_SQLSTATE);
  const char* message = PQresultErrorField(refusal, PG_DIAG_MESSAGE_PRIMARY);
  const char* detail = PQresultErrorField(refusal, PG_DIAG_MESSAGE_DETAIL);
  const char* hint = PQresultErrorField(refusal, PG_DIAG_MESSAGE_HINT);
  message = pstrdup(message != NULL ? message : PQerrorMessage(s->connection));
  if (code == NULL || says_that_it_is_gone(code)) {
    lose(s, message);
    return;
  }
  ereport(ERROR, errcode(MAKE_SQLSTATE(code[0], code[1], code[2], code[3], code[4])),
          errmsg("shard \"%s\": %s", s->name, message),
          detail == NULL ? 0 : errdetail_internal("%s", pstrdup(detail)),
          hint == NULL ? 0 : errhint("%s", pstrdup(hint)));
}

/* The statement has a part for each table of the shard. */
static void ask(QxShard* s, const QxQuestion* q) {
  uint64 k = pg_hton64((uint64)q->k);
  int n = 3 + list_length(s->tables), i = 3;
  Oid* types = palloc(sizeof(Oid) * (Size)n);
  const char** values = palloc(sizeof(char*) * (Size)n);
  int *sizes = palloc0(sizeof(int) * (Size)n), *formats = palloc0(sizeof(int) * (Size)n);
  const char* type = format_type_be(q->key_type);
  StringInfoData statement;
  ListCell* table;
  require_password(s, PQconnectionUsedPassword(s->connection) != 0);
  initStringInfo(&statement);
  types[0] = FLOAT4ARRAYOID;
  types[1] = INT8OID;
  types[2] = TEXTOID;
  values[0] = VARDATA(q->sent);
  values[1] = (const char*)&k;
  values[2] = q->filter;
  sizes[0] = (int)VARSIZE(q->sent) - VARHDRSZ;
  sizes[1] = sizeof k;
  formats[0] = formats[1] = 1;
  foreach (table, s->tables) {
    types[i] = REGCLASSOID;
    values[i++] = lfirst(table);
    appendStringInfo(&statement,
                     "%sSELECT id, score, qx.last_metric() FROM qx.search%s%s($%d, $1, $2, $3)",
                     i == 4 ? "" : " UNION ALL ", q->key_type == INT8OID ? "" : "_",
                     q->key_type == INT8OID ? "" : type, i);
  }
  s->state = QX_ASKED;
  if (PQsetnonblocking(s->connection, 1) != 0 ||
      PQsendQueryParams(s->connection, statement.data, n, types, values, sizes, formats, 1) == 0) {
    lose(s, PQerrorMessage(s->connection));
  }
}

static void go_on_connecting(QxShard* s, const QxQuestion* q) {
  switch (PQconnectPoll(s->connection)) {
    case PGRES_POLLING_READING:
      s->reads = true;
      break;
    case PGRES_POLLING_OK:
      require_encoding(s);
      ask(s, q);
      break;
    case PGRES_POLLING_FAILED:
      lose(s, PQerrorMessage(s->connection));
      break;
    default:
      s->reads = false;
  }
}

static void go_on_reading(QxShard* s) {
  if (PQflush(s->connection) < 0 || PQconsumeInput(s->connection) == 0) {
    lose(s, PQerrorMessage(s->connection));
    return;
  }
  while (s->state == QX_ASKED && PQisBusy(s->connection) == 0) {
    PGresult* result = PQgetResult(s->connection);
    if (result == NULL) {
      s->state = QX_DONE;
    } else {
      PQclear(s->answer);
      s->answer = result;
      if (PQresultStatus(result) != PGRES_TUPLES_OK) take_refusal(s, result);
    }
  }
}

static void go_on(QxShard* s, const QxQuestion* q) {
  if (s->state == QX_CONNECTING) {
    go_on_connecting(s, q);
  } else {
    go_on_reading(s);
  }
}

void qx_shard_start(QxShard* s, const QxQuestion* q) {
  if (s->connection != NULL && strcmp(s->connected_by, as_text(&s->options)) == 0) {
    ask(s, q);
  } else {
    begin_connecting(s);
  }
}

/* ---- All shards ---------------------------------------------------------------------------- */

/* Each host of a list has its part of the time. */
static void mind_time(QxShard* s, long elapsed) {
  int n = count_hosts(s);
  if (qx_shard_timeout == 0 || s->state == QX_DONE) return;
  if (elapsed >= qx_shard_timeout) {
    give_up(s, psprintf("No answer within %d ms (qx.shard_timeout).", qx_shard_timeout));
  } else if (s->state == QX_CONNECTING && s->host + 1 < n &&
             elapsed >= (long)qx_shard_timeout * (s->host + 1) / n) {
    s->host++;
    begin_connecting(s);
  }
}

static uint32 events_of(const QxShard* s) {
  if (s->state == QX_CONNECTING) return s->reads ? WL_SOCKET_READABLE : WL_SOCKET_WRITEABLE;
  return PQflush(s->connection) > 0 ? WL_SOCKET_READABLE | WL_SOCKET_WRITEABLE : WL_SOCKET_READABLE;
}

static bool wait_for_any(List* shards, const QxQuestion* q) {
  int n = list_length(shards) + 2, waiting = 0, happened;
  WaitEvent* events = palloc(sizeof *events * (Size)n);
  WaitEventSet* set = CreateWaitEventSet(CurrentMemoryContext, n);
  ListCell* cell;
  AddWaitEventToSet(set, WL_LATCH_SET, PGINVALID_SOCKET, MyLatch, NULL);
  AddWaitEventToSet(set, WL_EXIT_ON_PM_DEATH, PGINVALID_SOCKET, NULL, NULL);
  foreach (cell, shards) {
    QxShard* s = lfirst(cell);
    if (s->state == QX_DONE) continue;
    AddWaitEventToSet(set, events_of(s), PQsocket(s->connection), NULL, s);
    waiting++;
  }
  happened = waiting == 0 ? 0 : WaitEventSetWait(set, 100, events, n, PG_WAIT_EXTENSION);
  FreeWaitEventSet(set);
  ResetLatch(MyLatch);
  CHECK_FOR_INTERRUPTS();
  for (int i = 0; i < happened; i++) {
    if (events[i].user_data != NULL) go_on(events[i].user_data, q);
  }
  pfree(events);
  return waiting > 0;
}

void qx_shards_wait(List* shards, const QxQuestion* q) {
  TimestampTz began = GetCurrentTimestamp();
  ListCell* cell;
  while (wait_for_any(shards, q)) {
    long elapsed = TimestampDifferenceMilliseconds(began, GetCurrentTimestamp());
    foreach (cell, shards) {
      mind_time(lfirst(cell), elapsed);
    }
  }
}

QxShard* qx_shard_of(const ForeignServer* server) {
  UserMapping* user = GetUserMapping(GetUserId(), server->serverid);
  QxShard* s = NULL;
  ListCell* cell;
  foreach (cell, known_shards) {
    if (((QxShard*)lfirst(cell))->mapping == user->umid) s = lfirst(cell);
  }
  if (s == NULL) {
    MemoryContext before = MemoryContextSwitchTo(TopMemoryContext);
    s = palloc0(sizeof *s);
    s->mapping = user->umid;
    known_shards = lappend(known_shards, s);
    MemoryContextSwitchTo(before);
  }
  s->state = QX_DONE;
  s->name = server->servername;
  s->tables = NIL;
  s->options = options_of(server, user);
  s->must_use_password = must_use_password(user);
  s->reconnected = false;
  s->host = 0;
  s->missing = NULL;
  require_password(s, *option_of(&s->options, "password") != '\0');
  return s;
}
