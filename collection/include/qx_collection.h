/*
 * qx_collection: vectors by any id, searched by every core, on top of qx_runtime.
 *
 * A collection keeps rows: an id, a vector of floats, and values in typed columns. Rows are
 * upserted and removed at any time, from any thread; searches see the current rows, or those of a
 * view. It filters before it ranks, uses all cores, saves to one file, and does not end the
 * process.
 *
 *     QxCollection* words = NULL;
 *     QxColumn columns[] = {{"label", QX_INTEGER}, {"lang", QX_TEXT}};
 *     QxOptions options = {.dim = 100, .columns = columns, .n_columns = 2};
 *     qx_collection_new(&options, &words);
 *     qx_collection_upsert(words, ids, vectors, values);
 *     QxSearch search = {.filter = "label = 3 AND lang IN ('de', 'fr')"};
 *     QxHits* hits = NULL;
 *     if (qx_collection_search(words, NULL, query, 1, 10, &search, &hits) != QX_OK)
 *       puts(qx_collection_message());
 *     for (int64_t i = 0; i < hits->counts[0]; i++) use(hits->ids[i], hits->scores[i]);
 *     qx_hits_free(hits);
 *     qx_collection_free(words);
 *
 * CONVENTIONS, which hold for every function below
 *
 * 1. Results. A function that can fail returns a status. Unless it is QX_OK, nothing has changed,
 *    outputs are not written, and qx_collection_message() says on the same thread what is wrong.
 *    Pointers to arrays are not validated; null is refused where an array must have elements.
 *
 * 2. Ownership. Inputs are copied or only read during the call. What a call gives out as QxHits or
 *    QxRows is the caller's, does not change, and is released by qx_hits_free or qx_rows_free; it
 *    may outlive the collection.
 *
 * 3. Ids. A collection has numbers as ids, any int64_t, or texts, any bytes without length limit.
 *    Numbers are ordered by size, texts by their bytes. An id has at most one row.
 *
 * 4. Vectors have dim floats, all finite. A matrix is row-major.
 *
 * 5. Scores. The metric of a collection is declared once.
 *        QX_INNER_PRODUCT  the inner product, computed as convention 5 of qx_runtime.h says.
 *        QX_COSINE         the same of vectors divided by their norms. Rows are kept so, and given
 *                          out so. A zero vector stays zero: its score is 0 with every other.
 *        QX_EUCLIDEAN      the squared Euclidean distance: each component's difference is squared,
 *                          and the squares are added from the first to the last; every operation
 *                          rounds to float.
 *    All are the same bits on every CPU. A row is found by no search if its score is a NaN, an
 *    inner product of -1e30 or less, or a distance of 1e30 or more.
 *
 * 6. Order. Hits are ordered by score, the best first: falling, or with QX_EUCLIDEAN rising; and by
 *    ascending id where scores are equal, also at the k-th place. Ids, scores and order depend on
 *    the rows and the lists alone: not on threads, on other queries of the batch, on the order of
 *    changes, on compaction, or on a file in between.
 *
 * 7. Values. A column holds 64-bit integers, doubles, booleans or texts; each value may be NULL,
 *    which differs from every value. A filter is a text in the manner of SQL, with its logic of
 *    three values: a row passes if the filter is true of it.
 *        label = 3   year >= 2000   score BETWEEN 0.5 AND 1   lang IN ('de', 'fr')   done
 *        name <> 'it''s'   note IS NOT NULL   NOT (a = 1 OR b = 2) AND c < -1.5e3
 *    Words are AND OR NOT IN IS NULL BETWEEN TRUE FALSE, in any case; a column whose name is no
 *    word of letters, digits and _ stands in "double quotes". Integers and reals compare exactly,
 *    texts by their bytes, and a NaN in a column equals nothing. A boolean column is a condition
 *    by itself.
 *
 * 8. Concurrency. Every function may be called from any thread at any time, except that
 *    qx_collection_free must overlap no call on the collection, and a view is used by one thread
 *    at a time. Reads see the state of one moment, never half of a change, and wait for nobody.
 *    Changes wait for one another. A callback must not call this library, and should not throw.
 *
 * 9. Threads. Searches, loads and compactions use threads that all collections share: no more than
 *    there are CPUs for the process, started when first needed. A collection may have one thread
 *    more, which compacts (qx_collection_compact), and goes on with qx_collection_build. A process
 * may fork while no other thread is in a call of this library; both processes then go on with their
 * own collections, threads anew.
 *
 * 10. Memory. What rows take beside their vectors and codes (convention 12 of qx_runtime.h): 28
 *    bytes, a 512th of the vectors, 4 bytes for lists, 4 with QX_EUCLIDEAN, the values, and the
 * text of an id that is one. A change copies what is small; compaction holds the old rows until the
 *    new ones are complete, so its peak is about twice the rows. A call that would exceed the
 *    memory limit, or for which there is no memory, is refused; it never ends the process. What
 *    remains: the system may promise memory that it has not, and end the process when it is used;
 *    and a stack must have room for 512 KiB.
 */
#ifndef QX_COLLECTION_H
#define QX_COLLECTION_H

#include <stdint.h>

/* ---- Statuses ---------------------------------------------------------------------------- */

#define QX_OK 0
#define QX_INVALID 1       /* an argument does not fit the collection or the other arguments */
#define QX_OUT_OF_MEMORY 2 /* there is no memory, or it is beyond the limit */
#define QX_CANCELLED 3     /* a progress callback returned non-zero */
#define QX_IO_ERROR 4      /* the system refused an operation on a file */
#define QX_CORRUPT 5       /* a file is not one that was saved, or not whole */

/* ---- Kinds of ids, types of columns ------------------------------------------------------ */

#define QX_NUMBERS 0
#define QX_TEXTS 1

#define QX_INTEGER 0
#define QX_REAL 1
#define QX_BOOLEAN 2
#define QX_TEXT 3

/* ---- Metrics ----------------------------------------------------------------------------- */

#define QX_INNER_PRODUCT 0
#define QX_COSINE 1
#define QX_EUCLIDEAN 2

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QxCollection QxCollection;
typedef struct QxView QxView;

/* Bytes of a text; no end mark is needed or read. */
typedef struct QxText {
  const char* data;
  int64_t size;
} QxText;

/* Listed ids: numbers or texts, as the collection has them; the other pointer is not read. */
typedef struct QxIds {
  int64_t count;
  const int64_t* numbers;
  const QxText* texts;
} QxIds;

typedef struct QxColumn {
  const char* name;
  int32_t type;
} QxColumn;

/* The values of a column, one a row, in the array of its type; a null array is all NULL. */
typedef struct QxValues {
  const int64_t* integers;
  const double* reals;
  const uint8_t* booleans; /* 0 or else true */
  const QxText* texts;
  const uint8_t* nulls; /* where not 0, the value is NULL; or null, if none is */
} QxValues;

/* Called on the calling thread, now and then: done of total. Non-zero cancels the work. */
typedef int32_t (*QxProgress)(void* context, int64_t done, int64_t total);

/* ---- Lifecycle --------------------------------------------------------------------------- */

/* Zero is the default of every field but dim. */
typedef struct QxOptions {
  int32_t dim;             /* 1 to 65536 */
  int32_t id_kind;         /* QX_NUMBERS or QX_TEXTS */
  const QxColumn* columns; /* n_columns; names are distinct and not empty */
  int32_t n_columns;       /* 0 to 1000 */
  int32_t threads;         /* at most for a call; 0: as many as there are CPUs */
  int64_t memory_limit; /* bytes of all rows, those of views and of compaction included; 0: none */
  int32_t manual;       /* non-zero: rows are compacted by qx_collection_compact alone */
  int32_t metric;       /* QX_INNER_PRODUCT, QX_COSINE or QX_EUCLIDEAN */
} QxOptions;

/* Creates an empty collection. */
int32_t qx_collection_new(const QxOptions* options, QxCollection** out);

/*
 * Writes vectors of rows, in the order of their ids, where all rows stay: at least those of rows
 * `first` to `first + count` - 1, and of later ones any. Non-zero cancels the work.
 */
typedef int32_t (*QxFill)(void* context, int64_t first, int64_t count, float* vectors);

/* Lists that qx_collection_lists gave, and which of them rows are in. */
typedef struct QxLists {
  int64_t count;           /* 1 to 65536 */
  const float* centroids;  /* count * dim */
  const uint32_t* of_rows; /* of each row the number of its list; or QX_NO_LIST: the nearest one */
} QxLists;
#define QX_NO_LIST UINT32_MAX

/*
 * Creates a collection with rows that the host writes where they stay: without a second copy of
 * the vectors. `fill` is called on the calling thread, for some rows after the other until it was
 * for all, while other threads derive what searches need of those before. Unless the collection is
 * manual, a thread may go on to derive what makes searches faster: they find the same meanwhile.
 *
 * ids     strictly ascending.
 * values  as qx_collection_upsert has them.
 * lists   or null: none. Without rows they are not read.
 *
 * What these point to is read once all rows are filled: `fill` may write it.
 */
int32_t qx_collection_build(const QxOptions* options, QxIds ids, const QxValues* values,
                            const QxLists* lists, QxFill fill, void* context, QxCollection** out);

/* Releases a collection, or null. Its views must have been released. */
void qx_collection_free(QxCollection* collection);

/* What is wrong, of the latest call of this thread that failed; valid until the next that fails. */
const char* qx_collection_message(void);

/* ---- Changes ----------------------------------------------------------------------------- */

/*
 * Adds rows, or replaces those of their ids, vectors and values. The rows of one call appear
 * together. Of an id that repeats in the call, the last row counts.
 *
 * vectors  ids.count * dim floats.
 * values   one for each column, in the order of QxOptions; or null: every value is NULL.
 */
int32_t qx_collection_upsert(QxCollection* collection, QxIds ids, const float* vectors,
                             const QxValues* values);

/* Removes the rows of ids; those without a row count for nothing. `removed` may be null. */
int32_t qx_collection_remove(QxCollection* collection, QxIds ids, int64_t* removed);

/*
 * Brings all rows into one segment, and gives back the memory of removed and replaced ones, while
 * other calls go on. Unless the collection is manual, that is done in part and by itself: when many
 * small segments have come together, and when a sixteenth of a large segment's rows are gone.
 */
int32_t qx_collection_compact(QxCollection* collection, QxProgress progress, void* context);

/* ---- Views ------------------------------------------------------------------------------- */

/*
 * Takes a view of the current rows. It sees no later change of the collection, and changes of the
 * view are seen by nobody else: what a transaction needs. It holds the memory of the rows it sees.
 */
int32_t qx_view_new(const QxCollection* collection, QxView** out);
void qx_view_free(QxView* view);
int32_t qx_view_upsert(QxView* view, QxIds ids, const float* vectors, const QxValues* values);
int32_t qx_view_remove(QxView* view, QxIds ids, int64_t* removed);

/* ---- Reads: of a view of the collection, or with null of the current rows ----------------- */

/* Zero is the default of every field. */
typedef struct QxSearch {
  const char* filter; /* convention 7; null: every row passes */
  const QxIds* among; /* only rows of these ids; null: all */
  /* Only rows for which this returns non-zero; called on any thread, in no order, also of rows that
     the answer then does not hold. `text` is null where ids are numbers. */
  int32_t (*accept)(void* context, int64_t number, const QxText* text);
  void* accept_context;
  QxProgress progress;
  void* progress_context;
  int32_t threads;    /* at most; 0: those of the collection */
  int32_t probes;     /* how many lists are searched, the nearest ones; 0: all rows */
  const float* limit; /* only hits whose score is at least *limit, or distance at most; null: all */
} QxSearch;

typedef struct QxHits {
  int64_t n_queries;
  int64_t k;
  const int64_t* counts; /* n_queries: how many hits a query has */
  const int64_t* ids;    /* n_queries * k: hit i of query q is at q * k + i; null with texts */
  const QxText* texts;   /* n_queries * k; null with numbers */
  const float* scores;   /* n_queries * k; slots without a hit are zero */
} QxHits;

/*
 * Finds the k best rows of each query, or all there are if they are fewer.
 *
 * queries  n_queries * dim floats, all finite.
 * k        0 or more.
 * probes   if not 0, only rows of the lists nearest to each query, which qx_collection_train made:
 *          approximate and faster. If that gives fewer than k rows, further lists are searched, so
 *          that there are k, or all that pass; but not with a limit.
 * search   or null: defaults. Its limit is finite.
 */
int32_t qx_collection_search(const QxCollection* collection, const QxView* view,
                             const float* queries, int64_t n_queries, int64_t k,
                             const QxSearch* search, QxHits** out);
void qx_hits_free(QxHits* hits);

/*
 * Says how a search would go: a line for each segment, with its rows, those that pass, and whether
 * rows are scanned as they stand, by a bitmap, or as candidates. The text is released by
 * qx_text_free.
 */
int32_t qx_collection_explain(const QxCollection* collection, const QxView* view,
                              const QxSearch* search, char** out);
void qx_text_free(char* text);

typedef struct QxRows {
  int64_t count;
  int32_t dim;
  int32_t n_columns;
  const int64_t* ids;      /* count; null with texts */
  const QxText* texts;     /* count; null with numbers */
  const float* vectors;    /* count * dim */
  const QxValues* columns; /* n_columns, with nulls, and one array of its type */
  const uint8_t* found; /* count: 0 where an id has no row; its vector is zero, its values NULL */
} QxRows;

/* Copies the rows of ids out, in the order of the list. */
int32_t qx_collection_get(const QxCollection* collection, const QxView* view, QxIds ids,
                          QxRows** out);
void qx_rows_free(QxRows* rows);

/* Sets `found[i]` to 1 if ids[i] has a row, else to 0. */
int32_t qx_collection_contains(const QxCollection* collection, const QxView* view, QxIds ids,
                               uint8_t* found);

/*
 * Copies rows that pass a filter (or null) out, by ascending id: at most `most` of them, from the
 * first id on that is greater than the one in `after` (which holds one id, or none). Pages of one
 * view are those of one state.
 */
int32_t qx_collection_list(const QxCollection* collection, const QxView* view, const char* filter,
                           QxIds after, int64_t most, QxRows** out);

/* The number of rows, or -1 if the view is of another collection. */
int64_t qx_collection_count(const QxCollection* collection, const QxView* view);

typedef struct QxCollectionStats {
  int64_t rows;
  int64_t dead_rows; /* removed or replaced, and not yet compacted */
  int64_t tail_rows; /* of the rows, those that are in no segment yet */
  int64_t segments;
  int64_t bytes; /* of all rows, those of views and of compaction included */
  int64_t lists; /* 0 before qx_collection_train */
} QxCollectionStats;

void qx_collection_stats(const QxCollection* collection, QxCollectionStats* out);

/* ---- Lists: approximate searches ---------------------------------------------------------- */

/*
 * Divides the rows into lists by the nearest of n_lists centroids, or with 0 gives the lists up.
 * Centroids are found by k-means, spherical ones unless the metric is QX_EUCLIDEAN, on a sample of
 * the rows: the same rows give the same lists, by any number of threads. Rows that are upserted
 * later join the list of their nearest centroid. Searches and changes go on meanwhile.
 *
 * n_lists  0, or 1 to 65536 and at most the number of rows. About the square root of the number of
 *          rows is usual.
 */
int32_t qx_collection_train(QxCollection* collection, int64_t n_lists, QxProgress progress,
                            void* context);

/*
 * Copies out what qx_collection_build takes: the centroids of the lists, and of each id the number
 * of its list, or QX_NO_LIST if it has no row.
 *
 * n_lists    how many there are (QxCollectionStats).
 * centroids  n_lists * dim floats.
 * of_rows    ids.count numbers.
 */
int32_t qx_collection_lists(const QxCollection* collection, QxIds ids, int64_t n_lists,
                            float* centroids, uint32_t* of_rows);

typedef struct QxTuning {
  int64_t n_queries;    /* that were measured */
  int32_t probes;       /* the fewest whose rows reach the recall; all do. They save no time unless
                           seconds is below exact_seconds */
  double recall;        /* that searches with them reach: the part of the k best rows found */
  double seconds;       /* of a search with them, one query on one thread: the median */
  double exact_seconds; /* of one of all rows */
} QxTuning;

/*
 * Finds how many lists searches must probe. Queries that resemble those to come give a true
 * answer; null takes rows of the collection, which are easier.
 *
 * queries  n_queries * dim floats, or null: up to 200 rows.
 * k        1 or more.
 * recall   above 0, at most 1.
 * search   or null: filter, among, accept and progress count.
 */
int32_t qx_collection_tune(const QxCollection* collection, const float* queries, int64_t n_queries,
                           int64_t k, double recall, const QxSearch* search, QxTuning* out);

/* ---- Files ------------------------------------------------------------------------------- */

/*
 * Writes the rows of a view, or the current ones, to a file: the same rows give the same bytes. The
 * file appears whole or not at all: it is written beside, synced and renamed. docs/FORMAT.md
 * describes it.
 */
int32_t qx_collection_save(const QxCollection* collection, const QxView* view, const char* path,
                           QxProgress progress, void* context);

/*
 * Creates a collection from a file. Of `options` (or null) threads, memory_limit and manual count;
 * dim, kind of ids, columns and metric are the file's.
 */
int32_t qx_collection_load(const char* path, const QxOptions* options, QxProgress progress,
                           void* context, QxCollection** out);

/* What a collection is: dim, kind of ids, columns and metric, valid while it lives. */
void qx_collection_schema(const QxCollection* collection, QxOptions* out);

#ifdef __cplusplus
}
#endif

#endif
