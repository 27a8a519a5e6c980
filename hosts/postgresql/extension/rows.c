/* Rows of a table become the rows of a message, column by column. */
#include "access/genam.h"
#include "access/tableam.h"
#include "catalog/pg_type.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "utils/array.h"
#include "utils/builtins.h"
#include "utils/fmgroids.h"
#include "utils/memutils.h"

struct QxRowsMessage {
  const QxDefinition* definition;
  int32 dim;
  int32 count;
  StringInfoData removed, ids, vectors;
  StringInfoData nulls[QX_MOST_COLUMNS], values[QX_MOST_COLUMNS], texts[QX_MOST_COLUMNS];
  MemoryContext row; /* of values that are stored apart */
};

#define BATCH_BYTES (4 << 20)

static void append(StringInfo to, StringInfo from) {
  enlargeStringInfo(to, from->len);
  appendBinaryStringInfo(to, from->data, from->len);
  resetStringInfo(from);
}

void qx_write_text(StringInfo to, const char* text) {
  int32 size = (int32)strlen(text);
  qx_put(to, int32, size);
  appendBinaryStringInfo(to, text, size);
}

void qx_write_schema(StringInfo to, const QxDefinition* d, int32 dim, Relation table) {
  int i;
  qx_put(to, int32, dim);
  qx_put(to, int32, d->metric);
  qx_put(to, int32, d->n_columns);
  for (i = 0; i < d->n_columns; i++) {
    qx_put(to, int32, d->columns[i].type);
    qx_write_text(
        to, NameStr(TupleDescAttr(RelationGetDescr(table), d->columns[i].number - 1)->attname));
  }
}

QxRowsMessage* qx_rows_new(const QxDefinition* definition, int32 dim) {
  QxRowsMessage* rows = palloc0(sizeof *rows);
  QxDefinition* copy = palloc(sizeof *copy);
  int i;
  *copy = *definition; /* the latest one changes while rows are read */
  rows->definition = copy;
  rows->dim = dim;
  rows->row = GenerationContextCreate(CurrentMemoryContext, "qx row", ALLOCSET_DEFAULT_SIZES);
  initStringInfo(&rows->removed);
  initStringInfo(&rows->ids);
  initStringInfo(&rows->vectors);
  for (i = 0; i < definition->n_columns; i++) {
    initStringInfo(&rows->nulls[i]);
    initStringInfo(&rows->values[i]);
    initStringInfo(&rows->texts[i]);
  }
  return rows;
}

int64 qx_id_of(const QxColumnOf* id, Datum datum) {
  if (id->sql_type == INT2OID) return DatumGetInt16(datum);
  if (id->sql_type == INT4OID) return DatumGetInt32(datum);
  return DatumGetInt64(datum);
}

static double real_of(Oid type, Datum datum) {
  return type == FLOAT4OID ? (double)DatumGetFloat4(datum) : DatumGetFloat8(datum);
}

static void add_value(QxRowsMessage* rows, int i, Datum datum, bool null) {
  const QxColumnOf* column = &rows->definition->columns[i];
  StringInfo to = &rows->values[i];
  appendStringInfoChar(&rows->nulls[i], (char)null);
  if (column->type == QX_INTEGER) {
    qx_put(to, int64, null ? 0 : qx_id_of(column, datum));
  } else if (column->type == QX_REAL) {
    qx_put(to, double, null ? 0.0 : real_of(column->sql_type, datum));
  } else if (column->type == QX_BOOLEAN) {
    appendStringInfoChar(to, (char)(!null && DatumGetBool(datum)));
  } else {
    text* value = null ? NULL : DatumGetTextPP(datum);
    int size = null ? 0 : (int)VARSIZE_ANY_EXHDR(value);
    qx_put(to, int64, size);
    if (size > 0) appendBinaryStringInfo(&rows->texts[i], VARDATA_ANY(value), size);
  }
}

const char* qx_rows_add(QxRowsMessage* rows, TupleTableSlot* slot) {
  const QxDefinition* d = rows->definition;
  bool null;
  Datum datum = slot_getattr(slot, d->vector, &null);
  MemoryContext before;
  ArrayType* vector;
  const char* problem;
  int i;
  if (null) return NULL;
  before = MemoryContextSwitchTo(rows->row);
  vector = DatumGetArrayTypeP(datum);
  problem = qx_vector_problem(vector, rows->dim);
  if (problem == NULL) {
    appendBinaryStringInfo(&rows->vectors, (const char*)qx_numbers(vector),
                           rows->dim * (int)sizeof(float));
    qx_put(&rows->ids, int64, qx_id_of(&d->id, slot_getattr(slot, d->id.number, &null)));
    for (i = 0; i < d->n_columns; i++) {
      Datum value = slot_getattr(slot, d->columns[i].number, &null);
      add_value(rows, i, value, null);
    }
    rows->count++;
  }
  MemoryContextSwitchTo(before);
  MemoryContextReset(rows->row);
  return problem;
}

void qx_rows_remove(QxRowsMessage* rows, const int64* ids, int count) {
  appendBinaryStringInfo(&rows->removed, (const char*)ids, count * (int)sizeof(int64));
}

bool qx_rows_full(const QxRowsMessage* rows) {
  int i;
  if (rows->vectors.len > BATCH_BYTES || rows->ids.len > BATCH_BYTES / 8) return true;
  for (i = 0; i < rows->definition->n_columns; i++) {
    if (rows->texts[i].len > BATCH_BYTES) return true;
  }
  return false;
}

int qx_rows_count(const QxRowsMessage* rows) {
  return rows->count + rows->removed.len / (int)sizeof(int64);
}

void qx_rows_write(QxRowsMessage* rows, StringInfo to) {
  const QxDefinition* d = rows->definition;
  int i;
  qx_put(to, int32, rows->dim);
  qx_put(to, int32, d->n_columns);
  qx_put(to, int32, rows->removed.len / (int)sizeof(int64));
  qx_put(to, int32, rows->count);
  append(to, &rows->removed);
  append(to, &rows->ids);
  append(to, &rows->vectors);
  for (i = 0; i < d->n_columns; i++) {
    qx_put(to, int32, d->columns[i].type);
    append(to, &rows->nulls[i]);
    append(to, &rows->values[i]);
    append(to, &rows->texts[i]);
  }
  rows->count = 0;
}

int32 qx_find_dim(Relation table, const QxDefinition* d, Snapshot snapshot) {
  TupleTableSlot* slot = table_slot_create(table, NULL);
  TableScanDesc scan = table_beginscan(table, snapshot, 0, NULL);
  int32 dim = 0;
  while (dim == 0 && table_scan_getnextslot(scan, ForwardScanDirection, slot)) {
    bool null;
    Datum datum = slot_getattr(slot, d->vector, &null);
    ArrayType* vector = null ? NULL : DatumGetArrayTypeP(datum);
    CHECK_FOR_INTERRUPTS();
    if (!null && ARR_NDIM(vector) == 1) dim = ArrayGetNItems(1, ARR_DIMS(vector));
  }
  table_endscan(scan);
  ExecDropSingleTupleTableSlot(slot);
  return dim;
}

/* An id as a value of the key's type; false where it has none. */
static bool key_datum(Oid type, int64 id, Datum* datum, RegProcedure* equals) {
  *datum = type == INT2OID   ? Int16GetDatum((int16)id)
           : type == INT4OID ? Int32GetDatum((int32)id)
                             : Int64GetDatum(id);
  *equals = type == INT2OID ? F_INT2EQ : type == INT4OID ? F_INT4EQ : F_INT8EQ;
  return type == INT8OID || (type == INT4OID ? id == (int32)id : id == (int16)id);
}

const char* qx_rows_fetch(QxRowsMessage* rows, Relation table, Snapshot snapshot, const int64* ids,
                          int count) {
  const QxDefinition* d = rows->definition;
  Relation index = index_open(d->primary_key, AccessShareLock);
  IndexScanDesc scan = index_beginscan(table, index, snapshot, 1, 0);
  TupleTableSlot* slot = table_slot_create(table, NULL);
  const char* problem = NULL;
  int i;
  for (i = 0; i < count && problem == NULL; i++) {
    ScanKeyData key;
    Datum datum;
    RegProcedure equals;
    if (!key_datum(d->id.sql_type, ids[i], &datum, &equals)) continue;
    ScanKeyInit(&key, 1, BTEqualStrategyNumber, equals, datum);
    index_rescan(scan, &key, 1, NULL, 0);
    while (problem == NULL && index_getnext_slot(scan, ForwardScanDirection, slot)) {
      problem = qx_rows_add(rows, slot);
    }
  }
  ExecDropSingleTupleTableSlot(slot);
  index_endscan(scan);
  index_close(index, AccessShareLock);
  return problem;
}
