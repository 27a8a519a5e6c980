/* What the files of the extension share. */
#ifndef QX_H
#define QX_H

#include "access/genam.h"
#include "access/relation.h"
#include "executor/tuptable.h"
#include "fmgr.h"
#include "lib/stringinfo.h"
#include "postgres.h"
#include "qx_collection.h"
#include "utils/array.h"
#include "utils/rel.h"
#include "utils/snapshot.h"
#include "wire.h"

#define QX_MOST_COLUMNS 100
#define QX_LARGEST_DIM 65536

/* ---- definition.c: what an index is, which the triggers of its table say ------------------- */

typedef struct QxColumnOf {
  AttrNumber number;
  Oid sql_type;
  int32 type; /* -1: a uuid, which only a key may be */
} QxColumnOf;

typedef struct QxDefinition {
  Oid table;
  bool exists;
  bool complete;            /* its triggers are all there and fire always */
  Oid log, log_key, tables; /* InvalidOid where the extension is older than this library */
  Oid primary_key;          /* the index of the table */
  QxColumnOf id;
  int32 id_kind;
  AttrNumber vector;
  int n_columns;
  QxColumnOf columns[QX_MOST_COLUMNS];
  int32 metric;
  int32 dim; /* 0: not known yet */
} QxDefinition;

extern int32 qx_memory_limit; /* MB */
extern int32 qx_search_threads;
extern bool qx_relations_changed; /* since it was last set to false */

Oid qx_schema(void); /* or InvalidOid */
Oid qx_object(const char* name);

/* Columns of qx.tables; what it has of a table, as a snapshot sees it (null: the latest), or 0. */
#define QX_TABLES_PRUNED 2
#define QX_TABLES_DIM 3
int64 qx_read_tables(Oid tables, Oid table, AttrNumber number, Snapshot snapshot);
/* Valid until the next call. */
const QxDefinition* qx_definition(Relation table);
void qx_require_index(Relation table, const QxDefinition* definition);
bool qx_has_children(Relation table);
int32 qx_type_of(Oid sql_type); /* -1: none */
bool qx_may_be_key(Oid sql_type);
void qx_watch_definitions(void);

/* ---- writes.c: entries of the log ---------------------------------------------------------- */

/* What keeps an array from being a vector, or null. */
const char* qx_vector_problem(ArrayType* array, int32 dim);

/* The numbers of an array of one dimension without a NULL. */
static inline const float* qx_numbers(const ArrayType* array) {
  int32 offset = ARR_HASNULL(array) ? array->dataoffset : (int32)ARR_OVERHEAD_NONULLS(1);
  return (const float*)((const char*)array + offset);
}

/* ---- snapshots.c: which entries of the log two snapshots disagree about --------------------- */

typedef struct QxSnapshot {
  QxHorizon horizon;
  uint64* running;
} QxSnapshot;

/* Keys are bytes in the log: big-endian int64, or those of a uuid or a text. */
typedef struct QxChanges {
  bool all;     /* any row may have changed */
  bytea** keys; /* distinct */
  int count;
} QxChanges;

void qx_write_snapshot(StringInfo to, Snapshot snapshot, uint32 relation_file);
QxSnapshot qx_read_snapshot(const char** from);
QxSnapshot qx_snapshot_of(Snapshot snapshot, uint32 relation_file);
/* Of all that is committed now, also where a parallel query runs; registered. */
Snapshot qx_fresh_snapshot(const QxDefinition* definition);
/* Reads the log by `reading`; rows that two of the snapshots may see differently. With
   `all_running` also entries of transactions that all of them leave unseen are read. */
QxChanges qx_changes_between(const QxDefinition* definition, Snapshot reading,
                             const QxSnapshot* snapshots, int n, bool all_running);
uint64 qx_full_xid(TransactionId xid);

/* ---- rows.c: rows of a table as a message ------------------------------------------------- */

typedef struct QxRowsMessage QxRowsMessage;

QxRowsMessage* qx_rows_new(const QxDefinition* definition, int32 dim);
void qx_rows_remove(QxRowsMessage* rows, bytea* const* keys, int count);
/* Leaves rows without a vector out. What is wrong with a row, or null. */
const char* qx_rows_add(QxRowsMessage* rows, TupleTableSlot* slot);
bool qx_rows_full(const QxRowsMessage* rows);
int qx_rows_count(const QxRowsMessage* rows);
void qx_rows_write(QxRowsMessage* rows, StringInfo to); /* and starts anew */
int64 qx_integer_of(const QxColumnOf* column, Datum datum);
bytea* qx_key_of(const QxColumnOf* id, Datum datum);
bytea* qx_key_of_bytes(const char* bytes, Size size);
bytea* qx_key_of_number(int64 number);
void qx_seek(IndexScanDesc of_primary_key, const QxDefinition* definition, bytea* key);
/* Adds the rows of keys that a snapshot sees. */
const char* qx_rows_fetch(QxRowsMessage* rows, Relation table, Snapshot snapshot,
                          bytea* const* keys, int count);
/* The dimension of the first vector that a snapshot sees, or 0. */
int32 qx_find_dim(Relation table, const QxDefinition* definition, Snapshot snapshot);
void qx_write_schema(StringInfo to, const QxDefinition* definition, int32 dim, Relation table);
void qx_write_text(StringInfo to, const char* text);

#define qx_put(to, type, value)                                    \
  do {                                                             \
    type put_ = (value);                                           \
    appendBinaryStringInfo((to), (const char*)&put_, sizeof put_); \
  } while (0)

static inline void qx_take(const char** from, void* to, size_t size) {
  memcpy(to, *from, size);
  *from += size;
}

/* ---- search.c, shards.c: answers ------------------------------------------------------------ */

typedef struct QxQuestion {
  ArrayType* query;
  int64 k;
  const char* filter; /* empty: none */
  Oid key_type;       /* int8, uuid or text */
  const bytea* sent;  /* the query as other servers read it */
} QxQuestion;

typedef struct QxHit {
  Datum id;
  float score;
} QxHit;

typedef struct QxAnswer {
  int32 metric;
  int64 count;
  QxHit* hits;
} QxAnswer;

extern int32 qx_shard_timeout; /* ms; 0: none */
extern bool qx_partial_answers;

/* With `check`, of a user who may read what the index has. */
QxAnswer qx_search_table(Relation table, const QxQuestion* question, bool check);
/* Of a partitioned or foreign table. */
QxAnswer qx_search_shards(Relation table, const QxQuestion* question);
void qx_forget_missing(void);

/* ---- search.c ------------------------------------------------------------------------------ */

/* The keys of the k best rows that a snapshot sees. */
int64 qx_best_keys(Relation table, Snapshot snapshot, ArrayType* query, int64 k, bytea*** keys);

/* ---- order.c: ORDER BY an operator --------------------------------------------------------- */

void qx_offer_order(void);

/* ---- pending.c: rows that are changed before their triggers fire ----------------------------- */

void qx_watch_pending(void);
void qx_note_fired(Oid table); /* for one row */
/* Whether all rows of a table that this transaction has changed have been logged. */
bool qx_all_fired(Relation table);

/* ---- shared.c: what the processes of the server know of its workers -------------------------- */

void qx_enter_worker(void);
void qx_wake_worker(void); /* of this database, if there is one */
/* Wakes the worker when this transaction has been committed. */
void qx_wake_at_commit(void);
void qx_watch_commits(void);
/* Notes what the program of this worker holds; gives what all programs of the server hold. */
uint64 qx_note_bytes(uint64 bytes);

/* ---- program.c: the connection to the program ---------------------------------------------- */

#define QX_SOCKET_LENGTH 64
void qx_socket_name(char* name);
/* Starts a worker where there is none. Gives the status; the answer is valid until the next call.
   Refusals (but of QX_SEARCH) and lost connections are errors. */
uint32 qx_ask(uint32 kind, StringInfo body, StringInfo answer);
bool qx_try_ask(uint32 kind, StringInfo body, StringInfo answer); /* false: nothing runs */
void qx_tell(uint32 kind);

#endif
