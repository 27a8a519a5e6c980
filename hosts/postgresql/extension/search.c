/*
 * A search asks the program, whose rows are those of the worker's snapshot. Rows that the caller's
 * snapshot may see differently are then read by it and replaced for this search alone. Where the
 * log cannot say which, the program ranks all rows of the table as the caller sees them.
 */
#include "access/genam.h"
#include "access/table.h"
#include "access/tableam.h"
#include "access/xact.h"
#include "catalog/pg_type.h"
#include "extension/qx.h"
#include "funcapi.h"
#include "miscadmin.h"
#include "pgstat.h"
#include "storage/latch.h"
#include "storage/lmgr.h"
#include "utils/acl.h"
#include "utils/array.h"
#include "utils/builtins.h"
#include "utils/rls.h"
#include "utils/snapmgr.h"

PG_FUNCTION_INFO_V1(qx_search);
PG_FUNCTION_INFO_V1(qx_last_search);
PG_FUNCTION_INFO_V1(qx_last_metric);
PG_FUNCTION_INFO_V1(qx_stat);

static const char* last_search = "none";
static int32 last_metric = QX_INNER_PRODUCT;

typedef struct Search {
  Relation table;
  QxDefinition definition;
  Snapshot snapshot; /* the caller's */
  StringInfoData question, message, answer;
  int64 count;
  const char *ids, *bytes, *scores; /* of the hits */
} Search;

static void check_privileges(const Search* s) {
  const QxDefinition* d = &s->definition;
  Oid user = GetUserId();
  int i;
  bool allowed = pg_class_aclcheck(d->table, user, ACL_SELECT) == ACLCHECK_OK;
  if (!allowed) {
    allowed = pg_attribute_aclcheck(d->table, d->id.number, user, ACL_SELECT) == ACLCHECK_OK &&
              pg_attribute_aclcheck(d->table, d->vector, user, ACL_SELECT) == ACLCHECK_OK;
    for (i = 0; i < d->n_columns; i++) {
      allowed = allowed && pg_attribute_aclcheck(d->table, d->columns[i].number, user,
                                                 ACL_SELECT) == ACLCHECK_OK;
    }
  }
  if (!allowed) aclcheck_error(ACLCHECK_NO_PRIV, OBJECT_TABLE, RelationGetRelationName(s->table));
  if (check_enable_rls(d->table, InvalidOid, false) == RLS_ENABLED) {
    ereport(ERROR, errcode(ERRCODE_INSUFFICIENT_PRIVILEGE),
            errmsg("row-level security of \"%s\" applies to this user",
                   RelationGetRelationName(s->table)),
            errdetail("An index of qx searches all rows."));
  }
}

static int64 size_of_id(const Search* s, int64 hit) {
  int64 size;
  memcpy(&size, s->ids + hit * 8, sizeof size);
  return size;
}

static void set_hits(Search* s, const char* from) {
  qx_take(&from, &s->count, sizeof s->count);
  s->ids = from;
  s->bytes = from + s->count * 8;
  s->scores = s->bytes;
  for (int64 i = 0; s->definition.id_kind == QX_TEXTS && i < s->count; i++) {
    s->scores += size_of_id(s, i);
  }
}

/* Every row of the table as the caller sees it, ranked part by part. */
static void scan_table(Search* s) {
  const QxDefinition* d = &s->definition;
  QxRowsMessage* rows = qx_rows_new(d, d->dim);
  TupleTableSlot* slot = table_slot_create(s->table, NULL);
  TableScanDesc scan;
  bool more = true;
  last_search = "scan";
  resetStringInfo(&s->message);
  qx_write_schema(&s->message, d, d->dim, s->table);
  appendBinaryStringInfo(&s->message, s->question.data, s->question.len);
  qx_ask(QX_SCAN, &s->message, &s->answer);
  scan = table_beginscan(s->table, s->snapshot, 0, NULL);
  while (more) {
    CHECK_FOR_INTERRUPTS();
    more = table_scan_getnextslot(scan, ForwardScanDirection, slot);
    if (more) {
      const char* problem = qx_rows_add(rows, slot);
      if (problem != NULL) ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem));
    }
    if (more ? qx_rows_full(rows) : qx_rows_count(rows) > 0) {
      resetStringInfo(&s->message);
      qx_rows_write(rows, &s->message);
      qx_ask(QX_ROWS, &s->message, &s->answer);
    }
  }
  table_endscan(scan);
  ExecDropSingleTupleTableSlot(slot);
  resetStringInfo(&s->message);
  qx_ask(QX_RANKED, &s->message, &s->answer);
  set_hits(s, s->answer.data);
}

static void search_replaced(Search* s, const QxChanges* changes) {
  const int at_once = 1000;
  QxRowsMessage* rows = qx_rows_new(&s->definition, s->definition.dim);
  int i;
  for (i = 0; i < changes->count; i += at_once) {
    int n = Min(at_once, changes->count - i);
    const char* problem = qx_rows_fetch(rows, s->table, s->snapshot, changes->keys + i, n);
    if (problem != NULL) ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem));
    qx_rows_remove(rows, changes->keys + i, n);
    resetStringInfo(&s->message);
    qx_rows_write(rows, &s->message);
    qx_ask(QX_REPLACE, &s->message, &s->answer);
  }
  resetStringInfo(&s->message);
  qx_ask(QX_AGAIN, &s->message, &s->answer);
  set_hits(s, s->answer.data);
}

/* Under SERIALIZABLE, reading the log by the caller's snapshot is what conflicts are found by:
   whoever changes the table writes there. */
static QxChanges read_log(Search* s, const QxSnapshot* snapshots, int n) {
  Snapshot reading;
  QxChanges changes;
  if (IsolationIsSerializable()) {
    qx_changes_between(&s->definition, s->snapshot, &snapshots[n - 1], 1, true);
  }
  reading = qx_fresh_snapshot(&s->definition);
  reading->curcid = InvalidCommandId; /* all own entries */
  changes = qx_changes_between(&s->definition, reading, snapshots, n, false);
  UnregisterSnapshot(reading);
  return changes;
}

/* Whether someone waits for the whole table: behind him the worker would wait, and he for us. */
static bool is_awaited(Relation table) {
  if (!ConditionalLockRelation(table, RowShareLock)) return true;
  UnlockRelation(table, RowShareLock);
  return false;
}

/* False where the program has nothing to search, waits for what this transaction has done, or
   refuses: the table may have been declared anew since it was loaded. */
static bool ask_until_loaded(Search* s) {
  uint32 status;
  resetStringInfo(&s->message);
  qx_put(&s->message, uint32, s->definition.table);
  appendBinaryStringInfo(&s->message, s->question.data, s->question.len);
  while ((status = qx_ask(QX_SEARCH, &s->message, &s->answer)) != QX_ANSWER) {
    int woken;
    if (status == QX_EMPTY || status == QX_REFUSED ||
        TransactionIdIsValid(GetTopTransactionIdIfAny()) || is_awaited(s->table)) {
      return false;
    }
    if (status == QX_UNKNOWN) qx_wake_worker();
    woken =
        WaitLatch(MyLatch, WL_LATCH_SET | WL_TIMEOUT | WL_EXIT_ON_PM_DEATH, 5, PG_WAIT_EXTENSION);
    if (woken & WL_LATCH_SET) ResetLatch(MyLatch);
    CHECK_FOR_INTERRUPTS();
  }
  return true;
}

static void search(Search* s) {
  const char* from;
  QxSnapshot snapshots[3]; /* of the rows of the index, one or two, and the caller's */
  int32 n;
  QxChanges changes;
  /* A table that this transaction has made or rewritten is not what the worker sees. */
  if (s->table->rd_createSubid != InvalidSubTransactionId ||
      s->table->rd_newRelfilenodeSubid != InvalidSubTransactionId || !qx_all_fired(s->table) ||
      !ask_until_loaded(s)) {
    scan_table(s);
    return;
  }
  from = s->answer.data;
  qx_take(&from, &n, sizeof n);
  for (int i = 0; i < n; i++) snapshots[i] = qx_read_snapshot(&from);
  snapshots[n] = qx_snapshot_of(s->snapshot, 0);
  changes = read_log(s, snapshots, n + 1);
  if (changes.all || changes.count > 0) qx_wake_worker();
  if (changes.all || snapshots[0].horizon.relation_file != s->table->rd_node.relNode) {
    qx_tell(QX_RELEASE);
    scan_table(s);
    return;
  }
  last_search = changes.count > 0 ? "index, replaced rows" : "index";
  if (changes.count > 0) {
    search_replaced(s, &changes);
  } else {
    set_hits(s, from);
  }
  qx_tell(QX_RELEASE);
}

static void write_question(Search* s, ArrayType* query, int64 k, const char* filter) {
  int32 dim;
  const char* problem = qx_vector_problem(query, s->definition.dim);
  if (problem != NULL) {
    ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("the query is no vector of the index"),
            errdetail("%s", problem));
  }
  if (k < 0) ereport(ERROR, errcode(ERRCODE_INVALID_PARAMETER_VALUE), errmsg("k is below 0"));
  dim = ArrayGetNItems(1, ARR_DIMS(query));
  initStringInfo(&s->question);
  initStringInfo(&s->message);
  initStringInfo(&s->answer);
  qx_put(&s->question, int64, k);
  qx_put(&s->question, int32, qx_search_threads);
  qx_write_text(&s->question, filter);
  qx_put(&s->question, int32, dim);
  appendBinaryStringInfo(&s->question, (const char*)qx_numbers(query), dim * (int)sizeof(float));
}

static void begin(Search* s, ArrayType* query, int64 k, const char* filter) {
  if (s->definition.dim == 0) {
    s->definition.dim = qx_find_dim(s->table, &s->definition, s->snapshot);
  }
  write_question(s, query, k, filter);
  if (s->definition.dim > 0) search(s); /* else there is no vector */
}

int64 qx_best_keys(Relation table, Snapshot snapshot, ArrayType* query, int64 k, bytea*** keys) {
  Search s = {.table = table, .definition = *qx_definition(table), .snapshot = snapshot};
  const char* bytes;
  qx_require_index(table, &s.definition);
  begin(&s, query, k, "");
  *keys = MemoryContextAllocHuge(CurrentMemoryContext, sizeof(bytea*) * (Size)s.count + 1);
  bytes = s.bytes;
  for (int64 i = 0; i < s.count; i++) {
    int64 id = size_of_id(&s, i);
    (*keys)[i] =
        s.definition.id_kind == QX_TEXTS ? qx_key_of_bytes(bytes, (Size)id) : qx_key_of_number(id);
    bytes += s.definition.id_kind == QX_TEXTS ? id : 0;
  }
  return s.count;
}

static QxAnswer hits_of(const Search* s) {
  QxAnswer found = {s->definition.metric, s->count, NULL};
  const char* bytes = s->bytes;
  found.hits = MemoryContextAllocHuge(CurrentMemoryContext, sizeof(QxHit) * (Size)(s->count + 1));
  for (int64 i = 0; i < s->count; i++) {
    int64 id = size_of_id(s, i);
    QxHit* hit = &found.hits[i];
    memcpy(&hit->score, s->scores + i * 4, sizeof hit->score);
    hit->id = Int64GetDatum(id);
    if (s->definition.id_kind == QX_TEXTS) {
      hit->id = s->definition.id.type == QX_TEXT
                    ? PointerGetDatum(cstring_to_text_with_len(bytes, (int)id))
                    : PointerGetDatum(bytes);
      bytes += id;
    }
  }
  return found;
}

/* There is a function for each type of key. */
static void check_key(const QxQuestion* q, const Search* s) {
  int32 type = s->definition.id.type;
  const char* function = type == QX_INTEGER ? "qx.search"
                         : type == QX_TEXT  ? "qx.search_text"
                                            : "qx.search_uuid";
  Oid given = type == QX_INTEGER ? INT8OID : type == QX_TEXT ? TEXTOID : UUIDOID;
  if (q->key_type != given) {
    ereport(ERROR, errcode(ERRCODE_DATATYPE_MISMATCH),
            errmsg("the key of \"%s\" is of type %s", RelationGetRelationName(s->table),
                   format_type_be(s->definition.id.sql_type)),
            errhint("Its function is %s.", function));
  }
}

QxAnswer qx_search_table(Relation table, const QxQuestion* q, bool check) {
  Search s = {0};
  s.table = table;
  s.definition = *qx_definition(table);
  qx_require_index(table, &s.definition);
  if (check) check_privileges(&s);
  check_key(q, &s);
  s.snapshot = GetActiveSnapshot();
  begin(&s, q->query, q->k, q->filter);
  return hits_of(&s);
}

static void give_out(const ReturnSetInfo* result, const QxAnswer* found) {
  bool nulls[2] = {false, false};
  for (int64 i = 0; i < found->count; i++) {
    Datum values[2] = {found->hits[i].id, Float4GetDatum(found->hits[i].score)};
    tuplestore_putvalues(result->setResult, result->setDesc, values, nulls);
  }
}

Datum qx_search(PG_FUNCTION_ARGS) {
  const ReturnSetInfo* result = (const ReturnSetInfo*)fcinfo->resultinfo;
  QxQuestion q = {0};
  QxAnswer found;
  Relation table;
  InitMaterializedSRF(fcinfo, 0);
  if (PG_ARGISNULL(0) || PG_ARGISNULL(1) || PG_ARGISNULL(2)) {
    ereport(ERROR, errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED),
            errmsg("table, query and k must not be NULL"));
  }
  q.query = PG_GETARG_ARRAYTYPE_P(1);
  q.k = PG_GETARG_INT64(2);
  q.filter = PG_ARGISNULL(3) ? "" : text_to_cstring(PG_GETARG_TEXT_PP(3));
  q.key_type = TupleDescAttr(result->setDesc, 0)->atttypid;
  table = table_open(PG_GETARG_OID(0), AccessShareLock);
  qx_forget_missing();
  if (table->rd_rel->relkind == RELKIND_PARTITIONED_TABLE ||
      table->rd_rel->relkind == RELKIND_FOREIGN_TABLE) {
    found = qx_search_shards(table, &q);
    last_search = "shards";
  } else {
    found = qx_search_table(table, &q, true);
  }
  last_metric = found.metric;
  give_out(result, &found);
  table_close(table, AccessShareLock);
  PG_RETURN_VOID();
}

Datum qx_last_search(PG_FUNCTION_ARGS) {
  (void)fcinfo;
  PG_RETURN_TEXT_P(cstring_to_text(last_search));
}

/* Of the latest search, so that whoever merges its rows knows their order. */
Datum qx_last_metric(PG_FUNCTION_ARGS) {
  (void)fcinfo;
  PG_RETURN_INT16((int16)last_metric);
}

Datum qx_stat(PG_FUNCTION_ARGS) {
  ReturnSetInfo* result = (ReturnSetInfo*)fcinfo->resultinfo;
  StringInfoData message, answer;
  const char* from;
  int32 n;
  InitMaterializedSRF(fcinfo, 0);
  initStringInfo(&message);
  initStringInfo(&answer);
  if (!qx_try_ask(QX_STATS, &message, &answer)) PG_RETURN_VOID();
  from = answer.data;
  for (qx_take(&from, &n, sizeof n); n > 0; n--) {
    QxIndexStats stats;
    int32 size;
    Datum values[9];
    bool gone, nulls[9] = {false};
    qx_take(&from, &stats, sizeof stats);
    qx_take(&from, &size, sizeof size);
    values[0] = ObjectIdGetDatum(stats.table);
    values[1] = BoolGetDatum(stats.ready != 0);
    values[2] = Int64GetDatum(stats.rows);
    values[3] = Int64GetDatum(stats.expected);
    values[4] = Int64GetDatum(stats.bytes);
    values[5] = Int64GetDatum(stats.changes);
    values[6] = Int64GetDatum(stats.searches);
    values[7] = Int64GetDatum(stats.microseconds);
    values[8] = PointerGetDatum(cstring_to_text_with_len(from, size));
    nulls[8] = size == 0;
    from += size;
    if (pg_class_aclcheck_ext(stats.table, GetUserId(), ACL_SELECT, &gone) != ACLCHECK_OK) continue;
    tuplestore_putvalues(result->setResult, result->setDesc, values, nulls);
  }
  PG_RETURN_VOID();
}
