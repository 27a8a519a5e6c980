/*
 * An index is declared by triggers of its table, so that the server renames, dumps and drops the
 * declaration with the table. The columns of "0_qx_columns", which does nothing, are the id, the
 * vector and the filtered columns; its arguments are the metric, and the dimension where it is
 * known.
 */
#include "access/genam.h"
#include "access/table.h"
#include "catalog/namespace.h"
#include "catalog/pg_inherits.h"
#include "catalog/pg_trigger.h"
#include "catalog/pg_type.h"
#include "commands/trigger.h"
#include "extension/qx.h"
#include "utils/fmgroids.h"
#include "utils/inval.h"
#include "utils/lsyscache.h"
#include "utils/snapmgr.h"

bool qx_relations_changed = true;
static QxDefinition latest;

static void forget(Datum argument, Oid table) {
  (void)argument;
  qx_relations_changed = true;
  if (table == InvalidOid || table == latest.table) latest.table = InvalidOid;
}

void qx_watch_definitions(void) { CacheRegisterRelcacheCallback(forget, (Datum)0); }

Oid qx_schema(void) { return get_namespace_oid("qx", true); }

Oid qx_object(const char* name) {
  Oid schema = qx_schema();
  return schema == InvalidOid ? InvalidOid : get_relname_relid(name, schema);
}

int32 qx_type_of(Oid sql_type) {
  switch (sql_type) {
    case INT2OID:
    case INT4OID:
    case INT8OID:
      return QX_INTEGER;
    case FLOAT4OID:
    case FLOAT8OID:
      return QX_REAL;
    case BOOLOID:
      return QX_BOOLEAN;
    case TEXTOID:
    case VARCHAROID:
      return QX_TEXT;
    default:
      return -1;
  }
}

bool qx_may_be_key(Oid sql_type) {
  return sql_type == UUIDOID || qx_type_of(sql_type) == QX_INTEGER ||
         qx_type_of(sql_type) == QX_TEXT;
}

static QxColumnOf column_of(Relation table, AttrNumber number) {
  Oid type = TupleDescAttr(RelationGetDescr(table), number - 1)->atttypid;
  QxColumnOf column = {number, type, qx_type_of(type)};
  return column;
}

int64 qx_read_tables(Oid tables, Oid table, AttrNumber number, Snapshot snapshot) {
  Relation relation = table_open(tables, AccessShareLock);
  ScanKeyData key;
  SysScanDesc scan;
  HeapTuple row;
  int64 value = 0;
  ScanKeyInit(&key, 1, BTEqualStrategyNumber, F_OIDEQ, ObjectIdGetDatum(table));
  scan = systable_beginscan(relation, qx_object("tables_pkey"), true, snapshot, 1, &key);
  row = systable_getnext(scan);
  if (row != NULL) {
    TupleDesc columns = RelationGetDescr(relation);
    bool null;
    Datum datum = heap_getattr(row, number, columns, &null);
    bool is_short = TupleDescAttr(columns, number - 1)->atttypid == INT4OID;
    if (!null) value = is_short ? DatumGetInt32(datum) : DatumGetInt64(datum);
  }
  systable_endscan(scan);
  table_close(relation, AccessShareLock);
  return value;
}

static int32 metric_of(const char* name) {
  if (strcmp(name, "cosine") == 0) return QX_COSINE;
  if (strcmp(name, "euclidean") == 0) return QX_EUCLIDEAN;
  return QX_INNER_PRODUCT;
}

static void read_columns(QxDefinition* d, Relation table, const Trigger* trigger) {
  int i;
  Oid vector;
  if (trigger->tgnattr < 2 || trigger->tgnattr > QX_MOST_COLUMNS + 2 || trigger->tgnargs < 1)
    return;
  d->id = column_of(table, trigger->tgattr[0]);
  d->vector = trigger->tgattr[1];
  vector = TupleDescAttr(RelationGetDescr(table), d->vector - 1)->atttypid;
  d->n_columns = trigger->tgnattr - 2;
  d->metric = metric_of(trigger->tgargs[0]);
  if (trigger->tgnargs > 1) d->dim = Min(Max(atoi(trigger->tgargs[1]), 0), QX_LARGEST_DIM);
  d->id_kind = d->id.type == QX_INTEGER ? QX_NUMBERS : QX_TEXTS;
  d->exists = qx_may_be_key(d->id.sql_type) && vector == FLOAT4ARRAYOID;
  for (i = 0; i < d->n_columns; i++) {
    d->columns[i] = column_of(table, trigger->tgattr[i + 2]);
    if (d->columns[i].type < 0) d->exists = false;
  }
}

/* The id must be the whole primary key, or rows could not be told apart. */
static bool is_primary_key(const QxDefinition* d) {
  Relation index;
  bool is;
  if (d->primary_key == InvalidOid) return false;
  index = index_open(d->primary_key, AccessShareLock);
  is = index->rd_index->indnkeyatts == 1 && index->rd_index->indkey.values[0] == d->id.number &&
       index->rd_index->indimmediate;
  index_close(index, AccessShareLock);
  return is;
}

const QxDefinition* qx_definition(Relation table) {
  QxDefinition d = {0};
  const TriggerDesc* triggers = table->trigdesc;
  Oid schema;
  int i, always = 0;
  if (latest.table == RelationGetRelid(table)) return &latest;
  schema = qx_schema();
  d.table = RelationGetRelid(table);
  for (i = 0; triggers != NULL && i < triggers->numtriggers; i++) {
    const Trigger* trigger = &triggers->triggers[i];
    const char* function;
    if (get_func_namespace(trigger->tgfoid) != schema) continue;
    function = get_func_name(trigger->tgfoid);
    if (function == NULL) continue;
    if (strcmp(function, "declare_columns") == 0) read_columns(&d, table, trigger);
    if (trigger->tgenabled != TRIGGER_FIRES_ALWAYS || trigger->tgqual != NULL) continue;
    if (strcmp(function, "log_change") == 0 && trigger->tgnattr == 0 &&
        TRIGGER_FOR_ROW(trigger->tgtype) && TRIGGER_FOR_AFTER(trigger->tgtype) &&
        TRIGGER_FOR_INSERT(trigger->tgtype) && TRIGGER_FOR_UPDATE(trigger->tgtype) &&
        TRIGGER_FOR_DELETE(trigger->tgtype) && !trigger->tgdeferrable) {
      always |= 1;
    }
    if (strcmp(function, "log_truncate") == 0 && TRIGGER_FOR_TRUNCATE(trigger->tgtype)) always |= 2;
  }
  if (d.exists) {
    d.log = qx_object("changes");
    d.log_key = qx_object("changes_key");
    d.tables = qx_object("tables");
    d.primary_key = RelationGetPrimaryKeyIndex(table);
    d.complete = always == 3 && is_primary_key(&d);
    if (d.dim == 0) d.dim = (int32)qx_read_tables(d.tables, d.table, QX_TABLES_DIM, NULL);
  }
  latest = d;
  if (d.exists && d.log == InvalidOid) {
    latest.table = InvalidOid;
    ereport(ERROR, errcode(ERRCODE_OBJECT_NOT_IN_PREREQUISITE_STATE),
            errmsg("the extension qx is older than its library"),
            errhint("ALTER EXTENSION qx UPDATE."));
  }
  return &latest;
}

bool qx_has_children(Relation table) {
  return table->rd_rel->relhassubclass &&
         find_inheritance_children(RelationGetRelid(table), NoLock) != NIL;
}

void qx_require_index(Relation table, const QxDefinition* definition) {
  if (!definition->exists) {
    ereport(ERROR, errcode(ERRCODE_UNDEFINED_OBJECT),
            errmsg("table \"%s\" has no index of qx", RelationGetRelationName(table)),
            errhint("SELECT qx.create_index(...) makes one."));
  }
  if (!definition->complete) {
    ereport(
        ERROR, errcode(ERRCODE_OBJECT_NOT_IN_PREREQUISITE_STATE),
        errmsg("table \"%s\" lacks a trigger of qx that fires always, or its primary key",
               RelationGetRelationName(table)),
        errhint("ALTER TABLE ... ENABLE ALWAYS TRIGGER, or qx.drop_index and qx.create_index."));
  }
  if (qx_has_children(table)) {
    ereport(ERROR, errcode(ERRCODE_WRONG_OBJECT_TYPE),
            errmsg("table \"%s\" has children, whose rows its index of qx has not",
                   RelationGetRelationName(table)));
  }
}
