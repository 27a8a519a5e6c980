/*
 * What the extension and the program say to each other over a Unix socket. Both are of one build on
 * one machine, so numbers are as they stand in memory.
 *
 * A message is a QxHeader and a body. The program answers each but QX_RELEASE with one message,
 * whose kind is a status. Bodies, in order; `text` is an int32 size and its bytes:
 *
 *     schema    int32 dim (0: not known), metric, id_kind, n_columns; for each column int32 type,
 *               text name
 *     texts     of n: int64 sizes, then all bytes
 *     ids       int64 numbers, or texts
 *     rows      int32 dim, id_kind, n_columns, n_removed, n; ids of removed; ids; floats of the
 *               vectors; for each column int32 type, n bytes of nulls, then n values: int64,
 *               double, bytes, or texts
 *     question  int64 k, int32 threads, text filter (empty: none), int32 dim, floats of the query
 *     snapshot  QxHorizon, uint64 xids in progress
 *     hits      int64 count, ids, floats of the scores
 */
#ifndef QX_WIRE_H
#define QX_WIRE_H

#include <stdint.h>

typedef struct QxHeader {
  uint32_t size; /* of the body */
  uint32_t kind;
} QxHeader;

#define QX_LARGEST_MESSAGE (512u << 20)

/* Which transactions had committed: those before xmin, and those before xmax but the ones listed.
 */
typedef struct QxHorizon {
  uint64_t xmin;
  uint64_t xmax;
  uint32_t relation_file; /* of the table whose rows were read */
  uint32_t n_running;
} QxHorizon;

/* Asked by the worker. */
#define QX_DEFINE 1  /* uint32 table, int64 memory_limit, int64 rows to come, text name, schema */
#define QX_CHANGE 2  /* uint32 table, rows: the first ones before QX_PUBLISH, or after QX_BEGIN */
#define QX_PUBLISH 3 /* uint32 table, snapshot */
#define QX_FAIL 4    /* uint32 table, text reason; the rows are given up */
#define QX_DROP 5    /* uint32 table */
#define QX_BEGIN 14  /* uint32 table, snapshot: from now each row is of it or of the last one */
/* Asked by back ends. */
#define QX_SEARCH 6  /* uint32 table, question; answer: int32 n; snapshots; hits */
#define QX_REPLACE 7 /* rows, as only this connection's latest search shall see them */
#define QX_AGAIN 8   /* the latest search over these; answer: hits */
#define QX_RELEASE 9 /* ends the latest search */
#define QX_SCAN 10   /* schema, question: of the rows that follow */
#define QX_ROWS 11   /* rows */
#define QX_RANKED 12 /* answer: hits of these rows */
#define QX_STATS 13  /* answer: int32 n; QxIndexStats, text message, for each */

/* Statuses. */
#define QX_ANSWER 0  /* to the worker: int64 bytes of all rows of the program */
#define QX_REFUSED 1 /* text */
#define QX_LOADING 2
#define QX_UNKNOWN 3 /* the worker has not defined an index of the table yet */
#define QX_EMPTY 4   /* the worker has seen no vector, so not even their dimension is known */
#define QX_FAILED 5  /* text: why the index could not be loaded */

typedef struct QxIndexStats {
  uint32_t table;
  int32_t ready;
  int64_t rows;
  int64_t expected; /* while it is loaded, else 0 */
  int64_t bytes;
  int64_t changes; /* since it was loaded */
  int64_t searches;
  int64_t microseconds; /* of all searches */
} QxIndexStats;

#endif
