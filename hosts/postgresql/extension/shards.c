/*
 * A search of a partitioned table asks every server that has partitions as foreign tables of
 * postgres_fdw, all at the same time, each for its own best rows, and merges. Scores have the same
 * bits on every server and the order is total, so it does not matter who holds a row.
 */
#include "extension/shards.h"

#include "access/genam.h"
#include "access/htup_details.h"
#include "access/table.h"
#include "catalog/pg_foreign_table.h"
#include "catalog/pg_inherits.h"
#include "catalog/pg_type.h"
#include "commands/defrem.h"
#include "mb/pg_wchar.h"
#include "miscadmin.h"
#include "port/pg_bswap.h"
#include "storage/lock.h"
#include "utils/acl.h"
#include "utils/builtins.h"
#include "utils/fmgroids.h"
#include "utils/lsyscache.h"
#include "utils/memutils.h"
#include "utils/rls.h"
#include "utils/uuid.h"

PG_FUNCTION_INFO_V1(qx_missing_shards);

static List* missing; /* in TopMemoryContext: names that the latest search has gone without */

/* ---- Merging ------------------------------------------------------------------------------- */

static void add_hits(QxAnswer* to, const QxAnswer* from, const char* shard) {
  if (from->count == 0) return;
  if (to->count > 0 && to->metric != from->metric) {
    ereport(ERROR, errcode(ERRCODE_OBJECT_NOT_IN_PREREQUISITE_STATE),
            errmsg("shard \"%s\" has another metric than others", shard));
  }
  to->metric = from->metric;
  to->hits = to->hits == NULL
                 ? MemoryContextAllocHuge(CurrentMemoryContext, sizeof(QxHit) * (Size)from->count)
                 : repalloc_huge(to->hits, sizeof(QxHit) * (Size)(to->count + from->count));
  memcpy(to->hits + to->count, from->hits, sizeof(QxHit) * (size_t)from->count);
  to->count += from->count;
}

static Datum key_from(const char* bytes, int size, Oid type) {
  uint64 big;
  char* copy;
  if (type == TEXTOID) {
    (void)pg_verifymbstr(bytes, size, false);
    return PointerGetDatum(cstring_to_text_with_len(bytes, size));
  }
  if (type == UUIDOID) {
    copy = palloc(UUID_LEN);
    memcpy(copy, bytes, UUID_LEN);
    return PointerGetDatum(copy);
  }
  memcpy(&big, bytes, sizeof big);
  return Int64GetDatum((int64)pg_ntoh64(big));
}

static float score_from(const char* bytes) {
  uint32 bits;
  float score;
  memcpy(&bits, bytes, sizeof bits);
  bits = pg_ntoh32(bits);
  memcpy(&score, &bits, sizeof score);
  return score;
}

/* Another server may send anything. */
static void require_shape(const QxShard* s, int row, Oid type) {
  int of_id = PQnfields(s->answer) == 3 ? PQgetlength(s->answer, row, 0) : -1;
  bool fits = type == TEXTOID ? of_id >= 0 : of_id == (type == UUIDOID ? UUID_LEN : 8);
  if (!fits || PQgetlength(s->answer, row, 1) != 4 || PQgetlength(s->answer, row, 2) != 2) {
    ereport(ERROR, errcode(ERRCODE_FDW_ERROR), errmsg("shard \"%s\" gives no hits", s->name));
  }
}

static void add_answer(QxAnswer* to, const QxShard* s, Oid key_type) {
  const PGresult* answer = s->answer;
  int n = PQntuples(answer);
  for (int i = 0; i < n; i++) require_shape(s, i, key_type);
  for (int i = 0; i < n;) {
    /* Tables of one shard may differ, too. */
    QxAnswer part = {PQgetvalue(answer, i, 2)[1], 0, NULL};
    part.hits = MemoryContextAllocHuge(CurrentMemoryContext, sizeof(QxHit) * (Size)(n - i));
    for (; i < n && PQgetvalue(answer, i, 2)[1] == part.metric; i++) {
      QxHit* hit = &part.hits[part.count++];
      hit->id = key_from(PQgetvalue(answer, i, 0), PQgetlength(answer, i, 0), key_type);
      hit->score = score_from(PQgetvalue(answer, i, 1));
    }
    add_hits(to, &part, s->name);
    pfree(part.hits);
  }
}

typedef struct Order {
  Oid key_type;
  bool rises;
} Order;

static int compare(const void* a, const void* b, void* argument) {
  const QxHit *x = a, *y = b;
  const Order* order = argument;
  if (x->score != y->score) return (x->score < y->score) == order->rises ? -1 : 1;
  if (order->key_type == INT8OID) {
    int64 m = DatumGetInt64(x->id), n = DatumGetInt64(y->id);
    return (m > n) - (m < n);
  }
  if (order->key_type == UUIDOID) {
    return memcmp(DatumGetPointer(x->id), DatumGetPointer(y->id), UUID_LEN);
  } else {
    const text *m = DatumGetTextPP(x->id), *n = DatumGetTextPP(y->id);
    int of_m = (int)VARSIZE_ANY_EXHDR(m), of_n = (int)VARSIZE_ANY_EXHDR(n);
    int difference = memcmp(VARDATA_ANY(m), VARDATA_ANY(n), (size_t)Min(of_m, of_n));
    return difference != 0 ? difference : (of_m > of_n) - (of_m < of_n);
  }
}

static void keep_best(QxAnswer* hits, const QxQuestion* q) {
  Order order = {q->key_type, hits->metric == QX_EUCLIDEAN};
  if (hits->count > 0) qsort_arg(hits->hits, (size_t)hits->count, sizeof(QxHit), compare, &order);
  hits->count = Min(hits->count, q->k);
}

/* ---- Which shards -------------------------------------------------------------------------- */

static void check_privileges(Relation table) {
  Oid relation = RelationGetRelid(table);
  if (pg_class_aclcheck(relation, GetUserId(), ACL_SELECT) != ACLCHECK_OK &&
      pg_attribute_aclcheck_all(relation, GetUserId(), ACL_SELECT, ACLMASK_ALL) != ACLCHECK_OK) {
    aclcheck_error(ACLCHECK_NO_PRIV, OBJECT_TABLE, RelationGetRelationName(table));
  }
  if (check_enable_rls(relation, InvalidOid, false) == RLS_ENABLED) {
    ereport(ERROR, errcode(ERRCODE_INSUFFICIENT_PRIVILEGE),
            errmsg("row-level security of \"%s\" applies to this user",
                   RelationGetRelationName(table)));
  }
}

static bool locked_by_me(Oid relation, LOCKMODE mode) {
  LOCKTAG tag;
  SET_LOCKTAG_RELATION(tag, MyDatabaseId, relation);
  return LockHeldByMe(&tag, mode);
}

/* Whoever changes rows through a foreign table keeps a lock of it until the transaction ends. Its
   connection is postgres_fdw's, so that those of searches do not see these rows before. */
static void refuse_own_changes(const List* servers) {
  Relation tables = table_open(ForeignTableRelationId, AccessShareLock);
  SysScanDesc scan = systable_beginscan(tables, InvalidOid, false, NULL, 0, NULL);
  HeapTuple row;
  while ((row = systable_getnext(scan)) != NULL) {
    const FormData_pg_foreign_table* table = (const FormData_pg_foreign_table*)GETSTRUCT(row);
    if (!list_member_oid(servers, table->ftserver)) continue;
    if (locked_by_me(table->ftrelid, RowExclusiveLock) ||
        locked_by_me(table->ftrelid, AccessExclusiveLock)) {
      ereport(ERROR, errcode(ERRCODE_ACTIVE_SQL_TRANSACTION),
              errmsg("this transaction may have changed rows of foreign table \"%s\"",
                     get_rel_name(table->ftrelid)),
              errdetail("A search of shards sees what is committed."),
              errhint("Search before the change, or after COMMIT."));
    }
  }
  systable_endscan(scan);
  table_close(tables, AccessShareLock);
}

static const char* table_option(const ForeignTable* table, const char* name,
                                const char* otherwise) {
  ListCell* cell;
  foreach (cell, table->options) {
    DefElem* option = lfirst(cell);
    if (strcmp(option->defname, name) == 0) return defGetString(option);
  }
  return otherwise;
}

static void add_foreign(List** shards, List** servers, Oid relation) {
  ForeignTable* table = GetForeignTable(relation);
  ForeignServer* server = GetForeignServer(table->serverid);
  const char* wrapper = GetForeignDataWrapper(server->fdwid)->fdwname;
  const char* schema =
      table_option(table, "schema_name", get_namespace_name(get_rel_namespace(relation)));
  const char* name = table_option(table, "table_name", get_rel_name(relation));
  ListCell *shard, *known;
  QxShard* s = NULL;
  if (strcmp(wrapper, "postgres_fdw") != 0) {
    ereport(ERROR, errcode(ERRCODE_WRONG_OBJECT_TYPE),
            errmsg("foreign table \"%s\" is of \"%s\"", get_rel_name(relation), wrapper),
            errdetail("Searches reach foreign tables of postgres_fdw."));
  }
  forboth(shard, *shards, known, *servers) {
    if (lfirst_oid(known) == table->serverid) s = lfirst(shard);
  }
  if (s == NULL) {
    s = qx_shard_of(server);
    *shards = lappend(*shards, s);
    *servers = lappend_oid(*servers, table->serverid);
  }
  s->tables = lappend(s->tables, quote_qualified_identifier(schema, name));
}

static void search_local(QxAnswer* found, const List* tables, const QxQuestion* q) {
  ListCell* cell;
  foreach (cell, tables) {
    Relation table = table_open(lfirst_oid(cell), NoLock);
    QxAnswer part = qx_search_table(table, q, false);
    add_hits(found, &part, RelationGetRelationName(table));
    table_close(table, NoLock);
  }
}

static void note_missing(const List* shards) {
  ListCell* cell;
  MemoryContext before = MemoryContextSwitchTo(TopMemoryContext);
  foreach (cell, shards) {
    const QxShard* s = lfirst(cell);
    if (s->missing != NULL) missing = lappend(missing, pstrdup(s->name));
  }
  MemoryContextSwitchTo(before);
  foreach (cell, shards) {
    const QxShard* s = lfirst(cell);
    if (s->missing == NULL) continue;
    ereport(WARNING, errcode(ERRCODE_CONNECTION_FAILURE),
            errmsg("shard \"%s\" is missing from this answer", s->name),
            errdetail_internal("%s", s->missing));
  }
}

void qx_forget_missing(void) {
  list_free_deep(missing);
  missing = NIL;
}

static void ask_all(List* shards, const List* local, const QxQuestion* q, QxAnswer* found) {
  ListCell* cell;
  foreach (cell, shards) {
    qx_shard_start(lfirst(cell), q);
  }
  search_local(found, local, q);
  qx_shards_wait(shards, q);
  foreach (cell, shards) {
    QxShard* s = lfirst(cell);
    if (s->answer != NULL) add_answer(found, s, q->key_type);
    PQclear(s->answer);
    s->answer = NULL;
  }
}

/* Connections on which an answer is outstanding are of no use. */
static void ask_all_or_disconnect(List* shards, const List* local, const QxQuestion* q,
                                  QxAnswer* found) {
  PG_TRY();
  { ask_all(shards, local, q, found); }
  PG_CATCH();
  {
    ListCell* cell;
    foreach (cell, shards) {
      QxShard* s = lfirst(cell);
      if (s->state != QX_DONE || s->answer != NULL) qx_shard_disconnect(s);
    }
    PG_RE_THROW();
  }
  PG_END_TRY();
}

QxAnswer qx_search_shards(Relation parent, const QxQuestion* q) {
  List *shards = NIL, *servers = NIL, *local = NIL;
  QxAnswer found = {0};
  QxQuestion asked = *q;
  ListCell* cell;
  check_privileges(parent);
  foreach (cell, find_all_inheritors(RelationGetRelid(parent), AccessShareLock, NULL)) {
    Oid relation = lfirst_oid(cell);
    char kind = get_rel_relkind(relation);
    if (kind == RELKIND_FOREIGN_TABLE) {
      add_foreign(&shards, &servers, relation);
    } else if (kind == RELKIND_RELATION) {
      local = lappend_oid(local, relation);
    }
  }
  if (servers != NIL) refuse_own_changes(servers);
  asked.sent = OidSendFunctionCall(F_ARRAY_SEND, PointerGetDatum(q->query));
  ask_all_or_disconnect(shards, local, &asked, &found);
  note_missing(shards);
  keep_best(&found, q);
  return found;
}

Datum qx_missing_shards(PG_FUNCTION_ARGS) {
  ArrayBuildState* names = initArrayResult(TEXTOID, CurrentMemoryContext, false);
  ListCell* cell;
  (void)fcinfo;
  foreach (cell, missing) {
    accumArrayResult(names, CStringGetTextDatum(lfirst(cell)), false, TEXTOID,
                     CurrentMemoryContext);
  }
  PG_RETURN_DATUM(makeArrayResult(names, CurrentMemoryContext));
}
