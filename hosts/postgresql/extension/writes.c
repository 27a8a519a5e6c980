/* Triggers that check vectors and log changes; what declares an index and takes it back. */
#include "access/genam.h"
#include "access/heapam.h"
#include "access/table.h"
#include "access/xact.h"
#include "catalog/catalog.h"
#include "catalog/namespace.h"
#include "catalog/pg_authid.h"
#include "catalog/pg_type.h"
#include "commands/trigger.h"
#include "executor/spi.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "utils/acl.h"
#include "utils/array.h"
#include "utils/builtins.h"
#include "utils/guc.h"
#include "utils/inval.h"
#include "utils/lsyscache.h"
#include "utils/memutils.h"
#include "utils/snapmgr.h"

PG_FUNCTION_INFO_V1(qx_log_change);
PG_FUNCTION_INFO_V1(qx_log_truncate);
PG_FUNCTION_INFO_V1(qx_log_table);
PG_FUNCTION_INFO_V1(qx_declare_columns);
PG_FUNCTION_INFO_V1(qx_create_index);
PG_FUNCTION_INFO_V1(qx_drop_index);

const char* qx_vector_problem(ArrayType* array, int32 dim) {
  const uint32 exponent = 0x7F800000; /* all ones: a NaN or an infinity */
  const char* numbers;
  uint32 strange = 0;
  int i, n;
  if (ARR_ELEMTYPE(array) != FLOAT4OID || ARR_NDIM(array) != 1) {
    return "a vector must be an array of one dimension";
  }
  if (array_contains_nulls(array)) return "a vector must have no NULL in it";
  n = ArrayGetNItems(1, ARR_DIMS(array));
  if (dim == 0 ? n < 1 || n > QX_LARGEST_DIM : n != dim)
    return "a vector has another number of components";
  numbers = (const char*)qx_numbers(array);
  for (i = 0; i < n; i++) {
    uint32 number;
    memcpy(&number, numbers + (size_t)i * sizeof number, sizeof number);
    strange |= (number & exponent) == exponent;
  }
  return strange == 0 ? NULL : "a vector must have no NaN and no infinity in it";
}

/* Beside all checks of privileges: whoever changes a row logs it. */
static void log_entry(const QxDefinition* d, bytea* key) {
  Relation log = table_open(d->log, RowExclusiveLock);
  Datum values[3];
  bool nulls[3] = {false, false, key == NULL};
  HeapTuple entry;
  Relation index; /* its columns are the first two, and a btree asks for nothing else */
  values[0] = ObjectIdGetDatum(d->table);
  values[1] = Int64GetDatum((int64)U64FromFullTransactionId(GetTopFullTransactionId()));
  values[2] = PointerGetDatum(key);
  entry = heap_form_tuple(RelationGetDescr(log), values, nulls);
  simple_heap_insert(log, entry);
  index = index_open(d->log_key, RowExclusiveLock);
  index_insert(index, values, nulls, &entry->t_self, log, UNIQUE_CHECK_NO, false, NULL);
  index_close(index, NoLock);
  heap_freetuple(entry);
  table_close(log, NoLock);
  qx_wake_at_commit();
}

/* Runs a statement of the extension as the owner of its tables, whose names and operators the
   caller's search_path must not decide. */
static int run(const char* statement, int n, Oid* types, Datum* values) {
  Oid user;
  int context, status, settings = NewGUCNestLevel();
  GetUserIdAndSecContext(&user, &context);
  SetUserIdAndSecContext(BOOTSTRAP_SUPERUSERID, context | SECURITY_LOCAL_USERID_CHANGE);
  (void)set_config_option("search_path", "pg_catalog, pg_temp", PGC_USERSET, PGC_S_SESSION,
                          GUC_ACTION_SAVE, true, 0, false);
  status = SPI_execute_with_args(statement, n, types, values, NULL, false, 0);
  AtEOXact_GUC(true, settings);
  SetUserIdAndSecContext(user, context);
  qx_wake_at_commit();
  return status;
}

/* The first vector decides, once; concurrent writers of first vectors wait here for one another. */
static void decide_dim(Relation table, int32 dim) {
  Oid types[] = {OIDOID, INT4OID};
  Datum values[] = {ObjectIdGetDatum(RelationGetRelid(table)), Int32GetDatum(dim)};
  SPI_connect();
  run("INSERT INTO qx.tables AS t (relation, dim) VALUES ($1, $2) ON CONFLICT (relation) "
      "DO UPDATE SET dim = excluded.dim WHERE t.dim IS NULL",
      2, types, values);
  SPI_finish();
  CommandCounterIncrement();
  CacheInvalidateRelcache(table);
}

static void check_vector(Relation table, Datum datum) {
  ArrayType* vector = DatumGetArrayTypeP(datum);
  const QxDefinition* d = qx_definition(table);
  const char* problem = qx_vector_problem(vector, d->dim);
  if (problem == NULL && d->dim == 0) {
    QxDefinition known;
    Snapshot snapshot = qx_fresh_snapshot(d);
    int32 first = qx_find_dim(table, d, snapshot); /* rows may have been restored */
    UnregisterSnapshot(snapshot);
    decide_dim(table, first > 0 ? first : ArrayGetNItems(1, ARR_DIMS(vector)));
    CommandCounterIncrement();
    known = *qx_definition(table);
    problem = qx_vector_problem(vector, known.dim);
    d = qx_definition(table);
  }
  if (problem != NULL) {
    ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem),
            errdetail("Table \"%s\" has an index of qx for vectors of %d numbers.",
                      RelationGetRelationName(table), d->dim));
  }
  if ((Pointer)vector != DatumGetPointer(datum)) pfree(vector);
}

static const QxDefinition* definition_for_trigger(FunctionCallInfo fcinfo) {
  const QxDefinition* d;
  if (!CALLED_AS_TRIGGER(fcinfo)) {
    ereport(ERROR, errcode(ERRCODE_E_R_I_E_TRIGGER_PROTOCOL_VIOLATED),
            errmsg("this function is a trigger of qx"));
  }
  d = qx_definition(((TriggerData*)fcinfo->context)->tg_relation);
  if (qx_schema() == InvalidOid) {
    ereport(ERROR, errcode(ERRCODE_UNDEFINED_SCHEMA),
            errmsg("there is no schema qx to log changes in"));
  }
  return d->exists ? d : NULL;
}

static bytea* key_in(const QxDefinition* d, TupleTableSlot* slot) {
  bool null;
  Datum key = slot_getattr(slot, d->id.number, &null);
  return null ? NULL : qx_key_of(&d->id, key);
}

static bool same_key(const bytea* a, const bytea* b) {
  if (a == NULL || b == NULL) return a == b;
  return VARSIZE(a) == VARSIZE(b) && memcmp(a, b, VARSIZE(a)) == 0;
}

Datum qx_log_change(PG_FUNCTION_ARGS) {
  const QxDefinition* d = definition_for_trigger(fcinfo);
  TriggerData* trigger = (TriggerData*)fcinfo->context;
  TupleTableSlot *before = trigger->tg_trigslot, *after = trigger->tg_newslot;
  bool null;
  bytea *key, *new_key;
  if (d == NULL || !TRIGGER_FIRED_FOR_ROW(trigger->tg_event)) PG_RETURN_POINTER(NULL);
  if (TRIGGER_FIRED_BY_INSERT(trigger->tg_event)) after = before;
  if (!TRIGGER_FIRED_BY_DELETE(trigger->tg_event)) {
    Datum vector = slot_getattr(after, d->vector, &null);
    if (!null) check_vector(trigger->tg_relation, vector);
  }
  d = qx_definition(trigger->tg_relation);
  qx_note_fired(d->table);
  key = key_in(d, before);
  log_entry(d, key);
  if (TRIGGER_FIRED_BY_UPDATE(trigger->tg_event)) {
    new_key = key_in(d, after);
    if (!same_key(key, new_key)) log_entry(d, new_key);
  }
  PG_RETURN_POINTER(NULL);
}

Datum qx_log_truncate(PG_FUNCTION_ARGS) {
  const QxDefinition* d = definition_for_trigger(fcinfo);
  if (d != NULL) log_entry(d, NULL);
  PG_RETURN_POINTER(NULL);
}

Datum qx_declare_columns(PG_FUNCTION_ARGS) {
  (void)fcinfo;
  PG_RETURN_POINTER(NULL);
}

Datum qx_log_table(PG_FUNCTION_ARGS) {
  Relation table = table_open(PG_GETARG_OID(0), AccessShareLock);
  const QxDefinition* d = qx_definition(table);
  if (d->exists) log_entry(d, NULL);
  table_close(table, NoLock);
  PG_RETURN_VOID();
}

/* ---- Declarations -------------------------------------------------------------------------- */

static Relation open_own(Oid relation) {
  Relation table;
  char kind = get_rel_relkind(relation);
  if (kind == '\0')
    ereport(ERROR, errcode(ERRCODE_UNDEFINED_TABLE), errmsg("there is no such table"));
  if (!pg_class_ownercheck(relation, GetUserId())) {
    aclcheck_error(ACLCHECK_NOT_OWNER, OBJECT_TABLE, get_rel_name(relation));
  }
  table = table_open(relation, ShareRowExclusiveLock);
  if (table->rd_rel->relkind != RELKIND_RELATION || table->rd_rel->relpersistence == 't' ||
      qx_has_children(table) || IsCatalogRelation(table)) {
    ereport(
        ERROR, errcode(ERRCODE_WRONG_OBJECT_TYPE),
        errmsg("\"%s\" cannot have an index of qx", RelationGetRelationName(table)),
        errdetail("It must be an ordinary table, not temporary, without partitions or children."),
        errhint("Each partition can have an index of its own."));
  }
  return table;
}

static const char* name_of(Relation table, AttrNumber number) {
  return quote_identifier(NameStr(TupleDescAttr(RelationGetDescr(table), number - 1)->attname));
}

static const char* qualified(Relation table) {
  return quote_qualified_identifier(get_namespace_name(RelationGetNamespace(table)),
                                    RelationGetRelationName(table));
}

/* Appends a column to the list of the trigger, once its type is one of those that may be. */
static void add_column(StringInfo list, Relation table, const char* name, bool vector) {
  AttrNumber number = get_attnum(RelationGetRelid(table), name);
  Oid type;
  if (number < 1) {
    ereport(ERROR, errcode(ERRCODE_UNDEFINED_COLUMN), errmsg("there is no column \"%s\"", name));
  }
  type = get_atttype(RelationGetRelid(table), number);
  if (vector ? type != FLOAT4ARRAYOID : qx_type_of(type) < 0) {
    ereport(ERROR, errcode(ERRCODE_DATATYPE_MISMATCH),
            errmsg("column \"%s\" is of type %s", name, format_type_be(type)),
            vector ? errhint("Vectors are real[].")
                   : errhint("Filtered columns are integers, reals, booleans or texts."));
  }
  appendStringInfo(list, ", %s", name_of(table, number));
}

static void add_id(StringInfo list, Relation table) {
  Oid primary_key = RelationGetPrimaryKeyIndex(table);
  Relation index = primary_key == InvalidOid ? NULL : relation_open(primary_key, AccessShareLock);
  AttrNumber number = 0;
  if (index != NULL) {
    if (index->rd_index->indnkeyatts == 1 && index->rd_index->indimmediate) {
      number = index->rd_index->indkey.values[0];
    }
    relation_close(index, AccessShareLock);
  }
  if (number < 1 || !qx_may_be_key(get_atttype(RelationGetRelid(table), number))) {
    ereport(ERROR, errcode(ERRCODE_OBJECT_NOT_IN_PREREQUISITE_STATE),
            errmsg("\"%s\" needs a primary key of one integer, uuid or text",
                   RelationGetRelationName(table)));
  }
  appendStringInfoString(list, name_of(table, number));
}

/* Every vector must have the same number of components; gives that number, or 0 without any. */
static int32 check_rows(Relation table, const char* vector, int32 dim) {
  Snapshot snapshot = RegisterSnapshot(GetLatestSnapshot());
  TupleTableSlot* slot = table_slot_create(table, NULL);
  TableScanDesc scan = table_beginscan(table, snapshot, 0, NULL);
  AttrNumber number = get_attnum(RelationGetRelid(table), vector);
  MemoryContext row =
      GenerationContextCreate(CurrentMemoryContext, "qx row", ALLOCSET_DEFAULT_SIZES);
  while (table_scan_getnextslot(scan, ForwardScanDirection, slot)) {
    bool null;
    Datum datum = slot_getattr(slot, number, &null);
    MemoryContext before = MemoryContextSwitchTo(row);
    CHECK_FOR_INTERRUPTS();
    if (!null) {
      ArrayType* array = DatumGetArrayTypeP(datum);
      const char* problem = qx_vector_problem(array, dim);
      if (problem != NULL) ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem));
      dim = ArrayGetNItems(1, ARR_DIMS(array));
    }
    MemoryContextSwitchTo(before);
    MemoryContextReset(row);
  }
  table_endscan(scan);
  ExecDropSingleTupleTableSlot(slot);
  UnregisterSnapshot(snapshot);
  return dim;
}

static void execute(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void execute(const char* format, ...) {
  StringInfoData statement;
  va_list arguments;
  int more;
  initStringInfo(&statement);
  do {
    va_start(arguments, format);
    more = appendStringInfoVA(&statement, format, arguments);
    va_end(arguments);
    if (more > 0) enlargeStringInfo(&statement, more);
  } while (more > 0);
  run(statement.data, 0, NULL, NULL);
}

/* Some may be left of an earlier index, of which a column was dropped. */
static void make_triggers(const char* name, const char* columns, const char* metric, int32 dim) {
  char known[16] = "";
  if (dim > 0) snprintf(known, sizeof known, ", %d", dim);
  execute(
      "CREATE OR REPLACE TRIGGER \"0_qx_columns\" AFTER UPDATE OF %s ON %s FOR EACH STATEMENT "
      "EXECUTE FUNCTION qx.declare_columns(%s%s)",
      columns, name, quote_literal_cstr(metric), known);
  execute(
      "CREATE OR REPLACE TRIGGER \"0_qx_change\" AFTER INSERT OR UPDATE OR DELETE ON %s FOR EACH "
      "ROW "
      "EXECUTE FUNCTION qx.log_change()",
      name);
  execute(
      "CREATE OR REPLACE TRIGGER \"0_qx_truncate\" AFTER TRUNCATE ON %s "
      "EXECUTE FUNCTION qx.log_truncate()",
      name);
  execute(
      "ALTER TABLE %s ENABLE ALWAYS TRIGGER \"0_qx_change\", "
      "ENABLE ALWAYS TRIGGER \"0_qx_truncate\"",
      name);
}

static void refuse_null(FunctionCallInfo fcinfo, int n) {
  for (int i = 0; i < n; i++) {
    if (PG_ARGISNULL(i)) {
      ereport(ERROR, errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED), errmsg("argument %d is NULL", i + 1));
    }
  }
}

Datum qx_create_index(PG_FUNCTION_ARGS) {
  Relation table;
  Oid relation;
  StringInfoData columns;
  const char *metric, *name;
  Datum* names;
  bool* null;
  int i, n;
  int32 dim;
  refuse_null(fcinfo, 4);
  metric = text_to_cstring(PG_GETARG_TEXT_PP(3));
  if (strcmp(metric, "inner product") != 0 && strcmp(metric, "cosine") != 0 &&
      strcmp(metric, "euclidean") != 0) {
    ereport(ERROR, errcode(ERRCODE_INVALID_PARAMETER_VALUE),
            errmsg("there is no metric \"%s\"", metric),
            errhint("Metrics are inner product, cosine and euclidean."));
  }
  dim = PG_ARGISNULL(4) ? 0 : PG_GETARG_INT32(4);
  if (dim < 0 || dim > QX_LARGEST_DIM || (dim == 0 && !PG_ARGISNULL(4))) {
    ereport(ERROR, errcode(ERRCODE_INVALID_PARAMETER_VALUE),
            errmsg("dim must be 1 to %d", QX_LARGEST_DIM));
  }
  relation = PG_GETARG_OID(0);
  table = open_own(relation);
  if (qx_definition(table)->exists) {
    ereport(ERROR, errcode(ERRCODE_DUPLICATE_OBJECT),
            errmsg("\"%s\" has an index of qx", RelationGetRelationName(table)));
  }
  initStringInfo(&columns);
  add_id(&columns, table);
  add_column(&columns, table, NameStr(*PG_GETARG_NAME(1)), true);
  deconstruct_array(PG_GETARG_ARRAYTYPE_P(2), NAMEOID, NAMEDATALEN, false, TYPALIGN_CHAR, &names,
                    &null, &n);
  if (n > QX_MOST_COLUMNS) {
    ereport(ERROR, errcode(ERRCODE_TOO_MANY_COLUMNS),
            errmsg("at most %d columns", QX_MOST_COLUMNS));
  }
  for (i = 0; i < n; i++) {
    if (null[i])
      ereport(ERROR, errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED), errmsg("a column is NULL"));
    add_column(&columns, table, NameStr(*DatumGetName(names[i])), false);
  }
  dim = check_rows(table, NameStr(*PG_GETARG_NAME(1)), dim);
  name = qualified(table);
  table_close(table, NoLock); /* the lock stays */
  SPI_connect();
  execute("DELETE FROM qx.tables WHERE relation = %u", relation);
  make_triggers(name, columns.data, metric, dim);
  SPI_finish();
  PG_RETURN_VOID();
}

Datum qx_drop_index(PG_FUNCTION_ARGS) {
  Relation table = open_own(PG_GETARG_OID(0));
  const TriggerDesc* triggers = table->trigdesc;
  const char* name = qualified(table);
  char* names[64];
  int i, n = 0;
  for (i = 0; triggers != NULL && i < triggers->numtriggers && n < 64; i++) {
    if (get_func_namespace(triggers->triggers[i].tgfoid) == qx_schema()) {
      names[n++] = pstrdup(triggers->triggers[i].tgname);
    }
  }
  if (n == 0) {
    ereport(ERROR, errcode(ERRCODE_UNDEFINED_OBJECT),
            errmsg("table \"%s\" has no index of qx", RelationGetRelationName(table)));
  }
  table_close(table, NoLock); /* the lock stays */
  SPI_connect();
  for (i = 0; i < n; i++) {
    execute("DROP TRIGGER %s ON %s", quote_identifier(names[i]), name);
  }
  execute("DELETE FROM qx.tables WHERE relation = %u", PG_GETARG_OID(0));
  SPI_finish();
  PG_RETURN_VOID();
}
