/* Rows of a table become the rows of a message, column by column. */
#include "access/tableam.h"
#include "catalog/pg_type.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "port/pg_bswap.h"
#include "utils/array.h"
#include "utils/builtins.h"
#include "utils/fmgroids.h"
#include "utils/memutils.h"
#include "utils/uuid.h"

typedef struct Ids {
  StringInfoData numbers; /* or sizes */
  StringInfoData bytes;
} Ids;

struct QxRowsMessage {
  const QxDefinition* definition;
  int32 dim;
  int32 count;
  Ids removed, ids;
  StringInfoData vectors;
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
  qx_put(to, int32, d->id_kind);
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
  initStringInfo(&rows->removed.numbers);
  initStringInfo(&rows->removed.bytes);
  initStringInfo(&rows->ids.numbers);
  initStringInfo(&rows->ids.bytes);
  initStringInfo(&rows->vectors);
  for (i = 0; i < definition->n_columns; i++) {
    initStringInfo(&rows->nulls[i]);
    initStringInfo(&rows->values[i]);
    initStringInfo(&rows->texts[i]);
  }
  return rows;
}

int64 qx_integer_of(const QxColumnOf* column, Datum datum) {
  if (column->sql_type == INT2OID) return DatumGetInt16(datum);
  if (column->sql_type == INT4OID) return DatumGetInt32(datum);
  return DatumGetInt64(datum);
}

bytea* qx_key_of_bytes(const char* bytes, Size size) {
  bytea* key = palloc(VARHDRSZ + size);
  SET_VARSIZE(key, VARHDRSZ + size);
  memcpy(VARDATA(key), bytes, size);
  return key;
}

bytea* qx_key_of_number(int64 number) {
  uint64 big = pg_hton64((uint64)number);
  return qx_key_of_bytes((const char*)&big, sizeof big);
}

bytea* qx_key_of(const QxColumnOf* id, Datum datum) {
  if (id->type == QX_INTEGER) return qx_key_of_number(qx_integer_of(id, datum));
  if (id->type == QX_TEXT) return DatumGetByteaPCopy(datum);
  return qx_key_of_bytes((const char*)DatumGetUUIDP(datum)->data, UUID_LEN);
}

static int64 number_of(const bytea* key) {
  uint64 big;
  memcpy(&big, VARDATA(key), sizeof big);
  return (int64)pg_ntoh64(big);
}

static void add_id(Ids* to, const QxDefinition* d, const bytea* key) {
  int size = (int)VARSIZE(key) - VARHDRSZ;
  qx_put(&to->numbers, int64, d->id_kind == QX_NUMBERS ? number_of(key) : size);
  if (d->id_kind == QX_TEXTS) appendBinaryStringInfo(&to->bytes, VARDATA(key), size);
}

static double real_of(Oid type, Datum datum) {
  return type == FLOAT4OID ? (double)DatumGetFloat4(datum) : DatumGetFloat8(datum);
}

static void add_value(QxRowsMessage* rows, int i, Datum datum, bool null) {
  const QxColumnOf* column = &rows->definition->columns[i];
  StringInfo to = &rows->values[i];
  appendStringInfoChar(&rows->nulls[i], (char)null);
  if (column->type == QX_INTEGER) {
    qx_put(to, int64, null ? 0 : qx_integer_of(column, datum));
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
    add_id(&rows->ids, d, qx_key_of(&d->id, slot_getattr(slot, d->id.number, &null)));
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

void qx_rows_remove(QxRowsMessage* rows, bytea* const* keys, int count) {
  for (int i = 0; i < count; i++) add_id(&rows->removed, rows->definition, keys[i]);
}

bool qx_rows_full(const QxRowsMessage* rows) {
  int i;
  if (rows->vectors.len > BATCH_BYTES || rows->ids.numbers.len > BATCH_BYTES / 8 ||
      rows->ids.bytes.len > BATCH_BYTES) {
    return true;
  }
  for (i = 0; i < rows->definition->n_columns; i++) {
    if (rows->texts[i].len > BATCH_BYTES) return true;
  }
  return false;
}

int qx_rows_count(const QxRowsMessage* rows) {
  return rows->count + rows->removed.numbers.len / (int)sizeof(int64);
}

void qx_rows_write(QxRowsMessage* rows, StringInfo to) {
  const QxDefinition* d = rows->definition;
  int i;
  qx_put(to, int32, rows->dim);
  qx_put(to, int32, d->id_kind);
  qx_put(to, int32, d->n_columns);
  qx_put(to, int32, rows->removed.numbers.len / (int)sizeof(int64));
  qx_put(to, int32, rows->count);
  append(to, &rows->removed.numbers);
  append(to, &rows->removed.bytes);
  append(to, &rows->ids.numbers);
  append(to, &rows->ids.bytes);
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

/* A key as a value of its type. */
static Datum key_datum(Oid type, bytea* key, RegProcedure* equals) {
  switch (type) {
    case INT2OID:
      *equals = F_INT2EQ;
      return Int16GetDatum((int16)number_of(key));
    case INT4OID:
      *equals = F_INT4EQ;
      return Int32GetDatum((int32)number_of(key));
    case INT8OID:
      *equals = F_INT8EQ;
      return Int64GetDatum(number_of(key));
    case UUIDOID:
      *equals = F_UUID_EQ;
      return PointerGetDatum(VARDATA(key));
    default:
      *equals = F_TEXTEQ;
      return PointerGetDatum(key);
  }
}

void qx_seek(IndexScanDesc scan, const QxDefinition* d, bytea* key) {
  ScanKeyData of_key;
  RegProcedure equals;
  Datum datum = key_datum(d->id.sql_type, key, &equals);
  ScanKeyEntryInitialize(&of_key, 0, 1, BTEqualStrategyNumber, InvalidOid,
                         scan->indexRelation->rd_indcollation[0], equals, datum);
  index_rescan(scan, &of_key, 1, NULL, 0);
}

const char* qx_rows_fetch(QxRowsMessage* rows, Relation table, Snapshot snapshot,
                          bytea* const* keys, int count) {
  const QxDefinition* d = rows->definition;
  Relation index = index_open(d->primary_key, AccessShareLock);
  IndexScanDesc scan = index_beginscan(table, index, snapshot, 1, 0);
  TupleTableSlot* slot = table_slot_create(table, NULL);
  const char* problem = NULL;
  int i;
  for (i = 0; i < count && problem == NULL; i++) {
    qx_seek(scan, d, keys[i]);
    while (problem == NULL && index_getnext_slot(scan, ForwardScanDirection, slot)) {
      problem = qx_rows_add(rows, slot);
    }
  }
  ExecDropSingleTupleTableSlot(slot);
  index_endscan(scan);
  index_close(index, AccessShareLock);
  return problem;
}
