/*
 * qx_runtime: an in-memory vector search engine with a flat C interface.
 *
 * A host loads a sealed base of float vectors in one call, keeps row-level inserts and deletes as
 * a delta beside it, attaches metadata and IVF lists, and asks for the k nearest neighbours of a
 * query by inner product. The library starts no threads, takes no locks, opens no files and uses
 * no network.
 *
 * THE LIFE OF AN INDEX
 *
 *     QxIndex* index = qx_index_new(100, 0);                      an empty index, dimension 100
 *     qx_index_build(index, vectors, n, 100, ids, NULL, NULL, NULL, 0);          seal the base
 *     qx_index_insert(index, more_vectors, more_ids, 2);          upsert rows beside the base
 *     qx_index_delete(index, old_ids, 1);                         hide rows
 *     qx_index_set_rowmeta(index, ids, labels, values, 2, 1000);  a label and two columns per id
 *     n_found = qx_index_search_full(index, query, 10, out_ids, out_scores);   the sealed base
 *     qx_index_search_filtered(index, QX_FILTER_LABEL, 0, label, query, 10, out_ids, out_scores);
 *                                                   what is visible now and has the label
 *     qx_index_free(index);
 *
 * WHAT EACH FUNCTION SEES, as convention 7 says; all names but the last two begin with qx_index_
 *
 *     reads the sealed base      search_full search_partition search_ivf scatter_topk
 *                                export_base tuner_oversized stats
 *     reads what is current      search_filtered search_mvcc match_ids
 *                                visible_ids visible_count export_visible
 *     changes both of these      build
 *     changes current reads      insert delete set_rowmeta
 *     changes search_ivf only    set_ivf set_ivf_nprobe clear_ivf
 *     neither                    new free snapshot mutated sealed delta_count has_ivf
 *                                export_rowmeta qx_runtime_format_version qx_tuner_defaults
 *
 * CONVENTIONS, which hold for every function below
 *
 * 1. Handles. A QxIndex is created by qx_index_new and lives until qx_index_free. Only
 *    qx_index_free accepts a null handle; elsewhere a null, freed or foreign handle is undefined
 *    behaviour.
 *
 * 2. Ownership. Every input array is copied or only read during the call: the host may release or
 *    change it as soon as the call returns. Every output array is the host's. No call takes a
 *    capacity: each function says how many elements it writes. Pointers are not validated. An array
 *    of no elements is not touched and may be null, and so may a query where there is no row to
 *    score. Arrays need the alignment of their element type and nothing more. Output arrays must
 *    overlap neither each other nor an input.
 *
 * 3. Shapes and counts. A vector is dim floats. A matrix of n vectors is row-major: vector i is
 *    elements i * dim to i * dim + dim - 1. The dimension is the one given to qx_index_new until
 *    the first successful qx_index_build, and from then on the one given to the latest build. A
 *    dimension below 1 means vectors of no elements: nothing is read or stored for them and every
 *    score is 0. The engine counts in signed numbers: where a dimension, k or n has an unsigned
 *    type, 2^31 and above stand for a number below 0.
 *
 * 4. Rows and ids. An id is the host's 64-bit number for a vector. The sealed base takes ids from
 *    0 to QX_MAX_BASE_ID. Several base rows may have the same id: what looks for a row by its id
 *    finds the last of them. The delta, the tombstones, the metadata and the IVF keys take any
 *    64-bit value.
 *
 * 5. Scores. A score is the inner product of the query and a row in 32-bit floats: one chain of
 *    fused multiply-adds over components 0 to dim - 1 in order, starting from +0.0, rounded to
 *    nearest after each step. Larger is better. The same calls give the same bits, ids and order
 *    on every CPU, whatever the host has set in its floating-point environment: rounding, flushing
 *    of denormals, exceptions that trap. A call leaves that environment, sticky flags included, as
 *    it was. The engine normalises nothing.
 *
 * 6. Results. A search first sets the result slots that it owns to QX_EMPTY_ID and QX_EMPTY_SCORE,
 *    then offers its rows in the order that it documents. A row enters only with a score strictly
 *    greater than the last slot's, and stays behind every earlier row of the same score: slots are
 *    sorted from best to worst, ties in the order of arrival, empty slots last. A NaN score, and a
 *    score of QX_EMPTY_SCORE or less, never enter. A slot is empty if it has both the id and the
 *    score; the id alone does not tell, since the delta may hold a row of id -1. A search that
 *    returns 0 has written nothing.
 *
 * 7. What a read sees. "Sealed" reads see the base of the latest build and nothing else: no delta
 *    row, no tombstone. "Current" reads see the rows that are visible now:
 *      - a delta row (an inserted row) is visible unless its id is deleted;
 *      - a base row is visible unless its id is deleted or has a delta row, visible or not.
 *    An id is deleted from a qx_index_delete that names it until a qx_index_insert that names it.
 *    Current reads walk the visible delta rows in the order of their ids' first insertion, then
 *    the visible base rows in base order.
 *
 * 8. Concurrency. Any number of threads may read one handle at the same time, by the functions
 *    that take a const QxIndex*. A call of any other function must overlap no call on that handle;
 *    the host sees to it. Distinct handles share nothing.
 *
 * 9. The end of the process. Two conditions have no error return. Each writes exactly one line to
 *    standard error and then executes a trap instruction (a SIGILL or SIGTRAP on POSIX systems):
 *      - memory cannot be allocated:
 *          ABORT: <file>:<line>:<column>: alloc failed: returned a null pointer
 *      - an index is out of range, because host data pointed outside its own arrays or an
 *        internal invariant is broken:
 *          At: engine/qx_runtime:<line>:<column>: Assert Error: index <i> is out of bounds,
 *          valid range is 0 to <length - 1>                                   (all on one line)
 *    Host data can cause the second in these ways only: a later build changes the dimension
 *    while delta rows or IVF centroids of another dimension are stored and are then read or
 *    overwritten; or the offsets of an IVF list point outside its ids.
 *
 * 10. Cost. Reads allocate nothing, except qx_index_search_ivf: one array of nlist floats, released
 *    before it returns. The current reads that walk (filtered, match, visible) take time for every
 *    row. They read the vectors of visible rows that pass the test and no others; listing and
 *    counting ids reads none. They use up to 128 KiB of the calling thread's stack; other calls use
 *    up to 64 KiB. Nothing stored is reclaimed before qx_index_free, except by qx_index_clear_ivf
 *    and by replacing an IVF structure: tombstones, delta rows, metadata and the arrays of earlier
 *    builds stay.
 *
 * 11. Limits. Those of a base are said at qx_index_build. Counts of other calls go up to 2^31 - 1.
 *    There is no other limit than memory: convention 12, at the end of this header, says how much
 *    an index takes.
 */
#ifndef QX_RUNTIME_H
#define QX_RUNTIME_H

#include <stdint.h>

/* ---- Constants --------------------------------------------------------------------------- */

/*
 * The version of the interface that this header declares. A library fits if its
 * qx_runtime_format_version returns the same number.
 */
#define QX_RUNTIME_FORMAT_VERSION 1

/*
 * What a result slot holds that no row has reached: this id and this score, which is -1e30f with
 * the bits 0xF149F2CA (convention 6). All its digits are written out, since some compilers of C
 * compare floats in a wider format, in which -1e30 is another number.
 */
#define QX_EMPTY_ID (-INT64_C(1))
#define QX_EMPTY_SCORE (-1000000015047466219876688855040.0f)

/*
 * The modes of a filter: which ids pass in qx_index_search_filtered and qx_index_match_ids.
 */
#define QX_FILTER_ALL UINT32_C(0)    /* every id */
#define QX_FILTER_LABEL UINT32_C(1)  /* those with a label */
#define QX_FILTER_COLUMN UINT32_C(2) /* those with a value in a column */

/*
 * The label of an id that has none, and its value in a column that has none for it.
 */
#define QX_MISSING (-INT64_C(1))

/*
 * The largest id of a base row, 2^40 - 1 (convention 4).
 */
#define QX_MAX_BASE_ID ((INT64_C(1) << 40) - 1)

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QxIndex QxIndex;

/* ---- Lifecycle and accessors ------------------------------------------------------------- */

/*
 * Creates an empty index: no base, no delta, no metadata, no IVF structures.
 *
 * dim       dimension of the vectors until the first build, which replaces it.
 * user_tag  any number; reported by qx_index_stats and never interpreted.
 *
 * Returns the handle, never null. The host releases it with qx_index_free.
 */
QxIndex* qx_index_new(uint32_t dim, uint32_t user_tag);

/*
 * Releases an index and everything that it owns.
 *
 * index  a handle, which is invalid afterwards; or null, which does nothing.
 *
 * The arrays of earlier builds are not released (see qx_index_build).
 */
void qx_index_free(QxIndex* index);

/*
 * Reports the size of the sealed base and the numbers that identify the index.
 *
 * n_base    receives the number of base rows, 0 before the first build.
 * dim       receives the dimension.
 * user_tag  receives the tag given to qx_index_new.
 * n_parts   receives the number of partitions of the base, 0 before the first build.
 *
 * Returns 0. The four outputs are written in this order; none may be null.
 */
int32_t qx_index_stats(const QxIndex* index, uint64_t* n_base, uint32_t* dim, uint32_t* user_tag,
                       int32_t* n_parts);

/*
 * Returns the snapshot counter: 0 for a new index, raised by exactly 1 by each qx_index_insert and
 * qx_index_delete that carries at least one row, and by nothing else.
 */
uint64_t qx_index_snapshot(const QxIndex* index);

/*
 * Returns 1 once an insert or a delete has carried at least one row, else 0. Nothing resets it.
 */
uint32_t qx_index_mutated(const QxIndex* index);

/*
 * Returns 1 once a build has succeeded, else 0. Nothing resets it.
 */
uint32_t qx_index_sealed(const QxIndex* index);

/*
 * Returns the number of delta rows: the distinct ids ever inserted, deleted ones included.
 */
int64_t qx_index_delta_count(const QxIndex* index);

/*
 * Returns the version of the interface that the library has, and of the meaning of what it
 * exports: 1, the QX_RUNTIME_FORMAT_VERSION of this header.
 */
int32_t qx_runtime_format_version(void);

/* ---- The sealed base --------------------------------------------------------------------- */

/*
 * Seals a base: copies the vectors, their ids and a partition table, and makes every id findable.
 *
 * vectors      n * dim floats, row-major.
 * n            number of rows, 0 to 2^40.
 * dim          dimension, 0 or more; replaces the index's dimension.
 * ids          n ids, each from 0 to QX_MAX_BASE_ID, in any order. When an id repeats, its last row
 *              is the one found by id; the others are still scanned, listed and exported.
 * part_keys    n_parts partition keys, ascending, for the binary search of
 *              qx_index_search_partition; not checked.
 * part_starts  n_parts first rows. Ranges may overlap and need not cover the base. In a partition
 *              whose range leaves the base, qx_index_search_partition finds nothing.
 * part_sizes   n_parts row counts.
 * n_parts      number of partitions, 0 or more.
 *
 * Returns 0, or -1 with nothing changed and nothing allocated: dim or n_parts is negative, n is
 * negative or above 2^40, n * dim is above 2^40, or an id is negative or above QX_MAX_BASE_ID.
 *
 * The table that finds ids holds 8 bytes for every number from 0 to the largest id: dense ids are
 * cheap, sparse ones are not.
 *
 * A further build replaces the base; delta, tombstones, metadata, IVF structures and the snapshot
 * stay. The arrays of the earlier base are then kept allocated for the life of the process, and no
 * call releases them. A host that rebuilds should instead build a new index and free the old one.
 * Delta rows and IVF centroids stored under another dimension are not converted: reading them
 * afterwards gives floats of neighbouring rows or ends the process (convention 9).
 */
int32_t qx_index_build(QxIndex* index, const float* vectors, int64_t n, int32_t dim,
                       const int64_t* ids, const int64_t* part_keys, const int32_t* part_starts,
                       const int32_t* part_sizes, int32_t n_parts);

/*
 * Copies the sealed base out, bit for bit, in base order.
 *
 * out_vectors  receives n_base * dim floats, row-major.
 * out_ids      receives n_base ids.
 *
 * Returns the number of rows written; 0, with nothing written, before the first build.
 */
int64_t qx_index_export_base(const QxIndex* index, float* out_vectors, int64_t* out_ids);

/* ---- Exact search of the sealed base ----------------------------------------------------- */

/*
 * Finds the best rows of the whole sealed base, offered in base order.
 *
 * query       dim floats.
 * k           number of results wanted.
 * out_ids     receives min(k, n_base) ids, best first.
 * out_scores  receives their scores.
 *
 * Returns the number of slots written: min(k, n_base), or 0 with nothing written when that is
 * below 1 or nothing is sealed. Deleted and superseded base rows are found too. A row whose score
 * is a NaN or at most QX_EMPTY_SCORE leaves a slot empty.
 */
int32_t qx_index_search_full(const QxIndex* index, const float* query, int32_t k, int64_t* out_ids,
                             float* out_scores);

/*
 * Like qx_index_search_full, but over the rows of one partition.
 *
 * key         a partition key of the latest build. Of equal keys, the one that a binary search of
 *             the table meets first is used; it looks at the lower of two middle keys.
 * query       dim floats.
 * k           number of results wanted.
 * out_ids     receives min(k, partition size) ids, best first.
 * out_scores  receives their scores.
 *
 * Returns the number of slots written, or 0 with nothing written: nothing is sealed, the key is
 * unknown, the partition's range is negative or leaves the base, or min(k, size) is below 1.
 */
int32_t qx_index_search_partition(const QxIndex* index, int64_t key, const float* query, int32_t k,
                                  int64_t* out_ids, float* out_scores);

/*
 * Finds the best among listed ids of the sealed base, offered in the order of the list.
 *
 * cand_ids    n_cand ids. Ids without a base row are skipped; an id listed twice may fill two
 *             slots.
 * n_cand      number of candidates.
 * query       dim floats.
 * k           number of results wanted.
 * out_ids     receives min(k, n_cand) ids, best first; empty slots behind them.
 * out_scores  receives their scores.
 *
 * Returns the number of slots written: min(k, n_cand), however many candidates were found; or 0
 * with nothing written when that is below 1 or nothing is sealed.
 */
int32_t qx_index_scatter_topk(const QxIndex* index, const int64_t* cand_ids, int32_t n_cand,
                              const float* query, int32_t k, int64_t* out_ids, float* out_scores);

/* ---- Tuner ------------------------------------------------------------------------------- */

/*
 * Hands out two numbers to which the library gives no meaning of its own: it keeps them for hosts
 * that know them.
 *
 * first   receives 20000.
 * second  receives 980.
 *
 * Returns 0.
 */
int32_t qx_tuner_defaults(uint32_t* first, uint32_t* second);

/*
 * Lists the partitions of the sealed base that hold at least threshold rows, in table order.
 *
 * threshold  the least number of rows; compared with the sizes as they were given to the build,
 *            of which some may be negative.
 * keys       receives the partition keys; room for n_parts (qx_index_stats) is enough.
 * sizes      receives their row counts; room for n_parts is enough.
 *
 * Returns the number of partitions listed, 0 before the first build.
 */
int32_t qx_index_tuner_oversized(const QxIndex* index, int32_t threshold, int64_t* keys,
                                 int64_t* sizes);

/* ---- Mutation ---------------------------------------------------------------------------- */

/*
 * Inserts rows into the delta, or overwrites the delta rows of ids inserted before, and lifts
 * their tombstones. Works before and after a build, and never touches the base.
 *
 * vectors  n * dim floats, row-major.
 * ids      n ids, any values. When an id repeats within the call, its last vector is kept.
 * n        number of rows; below 1 means no rows.
 *
 * Returns the snapshot counter after the call: raised by 1 if n is at least 1, else unchanged.
 * Memory grows with each new id, not with an overwritten one. Overwriting a row after a build with
 * a larger dimension may end the process (convention 9).
 */
uint64_t qx_index_insert(QxIndex* index, const float* vectors, const int64_t* ids, int32_t n);

/*
 * Marks ids as deleted: current reads no longer see their rows, sealed reads still do.
 *
 * ids  n ids, any values; an id that has no row gets a tombstone all the same.
 * n    number of ids; below 1 means none.
 *
 * Returns the snapshot counter after the call: raised by 1 if n is at least 1, else unchanged.
 * Nothing is freed or moved, and tombstones are never reclaimed.
 */
uint64_t qx_index_delete(QxIndex* index, const int64_t* ids, int32_t n);

/* ---- IVF --------------------------------------------------------------------------------- */

/*
 * Attaches an inverted-file structure under a key, or replaces the one that the key has.
 *
 * key           any number; unrelated to partition keys.
 * nlist         number of lists.
 * nprobe        number of lists that a search scans; stored as given, never clamped.
 * centroids     dim * nlist floats, row-major, with the index's dimension at this call; none if
 *               that product is below 1. (That of two negative numbers is not.)
 * list_ids      n_ids ids of sealed base rows, list after list.
 * list_offsets  nlist + 1 offsets: list c is list_ids[list_offsets[c]] up to, but not including,
 *               list_ids[list_offsets[c + 1]]. Not read when nlist is negative.
 * n_ids         number of ids in all lists; below 1 means none.
 *
 * Returns 0. Nothing is validated: ids without a base row are skipped by the search, and offsets
 * outside 0 to n_ids end the process when the search scans their list (convention 9).
 */
int32_t qx_index_set_ivf(QxIndex* index, int64_t key, int32_t nlist, int32_t nprobe,
                         const float* centroids, const int64_t* list_ids,
                         const int32_t* list_offsets, int32_t n_ids);

/*
 * Returns 1 if the key has an IVF structure, else 0.
 */
int32_t qx_index_has_ivf(const QxIndex* index, int64_t key);

/*
 * Releases all IVF structures with their keys. Returns 0.
 */
int32_t qx_index_clear_ivf(QxIndex* index);

/*
 * Changes the probe count of an IVF structure.
 *
 * nprobe  stored as given; below 1 makes searches scan no list.
 *
 * Returns 0, or -1 with nothing changed if the key has no structure.
 */
int64_t qx_index_set_ivf_nprobe(QxIndex* index, int64_t key, int32_t nprobe);

/*
 * Finds good rows of the sealed base through an IVF structure: scores every centroid, then scans
 * the nprobe lists of the best centroids, best first, ties in list order. A list whose centroid
 * scores NaN, QX_EMPTY_SCORE or less is never scanned.
 *
 * key         the key given to qx_index_set_ivf.
 * query       dim floats.
 * k           number of results wanted.
 * out_ids     receives k ids, best first; empty slots behind them. An id that the scanned lists
 *             name twice may fill two slots.
 * out_scores  receives their scores.
 *
 * Returns k, however many rows were found; or 0 with nothing written when the key has no
 * structure, k is below 1 or the structure has no list. Sealed: deleted rows are found, inserted
 * ones are not. A dimension above that of the stored centroids ends the process, and so does a
 * scanned list that leaves list_ids (convention 9).
 */
int32_t qx_index_search_ivf(const QxIndex* index, int64_t key, const float* query, int32_t k,
                            int64_t* out_ids, float* out_scores);

/* ---- Metadata ---------------------------------------------------------------------------- */

/*
 * Sets the label and the column values of ids. Metadata belongs to an id, whether or not it has a
 * row, and survives deletes, inserts and builds.
 *
 * ids     n ids, any values. When an id repeats, its last values are kept.
 * labels  n labels.
 * values  n * ncols column values, row-major: those of ids[i] start at i * ncols.
 * ncols   number of columns, at least the index's current number; a larger one widens the index,
 *         also when n is below 1. Columns are never removed.
 * n       number of ids; below 1 means none.
 *
 * Returns 0, or -1 with nothing changed if ncols is below the current number of columns. The value
 * QX_MISSING is the mark of a missing one: writing it reads as never written.
 */
int32_t qx_index_set_rowmeta(QxIndex* index, const int64_t* ids, const int64_t* labels,
                             const int64_t* values, int32_t ncols, int32_t n);

/*
 * Reads the labels and column values of listed ids, visible or not.
 *
 * ids         n ids.
 * n           number of ids; below 1 means none, and so do 2^31 and above (convention 3).
 * out_labels  receives n labels, QX_MISSING where an id has none.
 * out_values  receives n * ncols values, row-major, QX_MISSING where an id has none.
 *
 * Returns ncols, the index's number of columns. A call with n = 0 writes nothing and gives the
 * number that sizes out_values.
 */
int32_t qx_index_export_rowmeta(const QxIndex* index, const int64_t* ids, uint32_t n,
                                int64_t* out_labels, int64_t* out_values);

/* ---- Current reads: what is visible now -------------------------------------------------- */

/*
 * Finds the best among listed ids as they are now, offered in the order of the list: an id stands
 * for its delta row if it has one, else for its base row; deleted and unknown ids are skipped.
 *
 * ids         n ids; an id listed twice may fill two slots.
 * n           number of candidates; below 1 means none.
 * query       dim floats.
 * k           number of results wanted; 2^31 and above count as below 1 (convention 3).
 * out_ids     receives k ids, best first; empty slots behind them.
 * out_scores  receives their scores.
 *
 * Returns k, however many candidates were found; or 0 with nothing written when k is below 1.
 */
int64_t qx_index_search_mvcc(const QxIndex* index, const int64_t* ids, int32_t n,
                             const float* query, uint32_t k, int64_t* out_ids, float* out_scores);

/*
 * Finds the best visible rows whose id passes a test, offered in walk order (convention 7).
 *
 * mode        QX_FILTER_ALL: every id passes; QX_FILTER_LABEL: ids whose label equals value;
 *             QX_FILTER_COLUMN, or any other number: ids whose value in the column equals value. A
 *             missing label or value counts as QX_MISSING.
 * column      column number for the column test; outside 0 to ncols - 1 nothing passes.
 * value       the value to compare with.
 * query       dim floats.
 * k           number of results wanted; 2^31 and above count as below 1 (convention 3).
 * out_ids     receives k ids, best first; empty slots behind them.
 * out_scores  receives their scores.
 *
 * Returns k, however many rows passed; or 0 with nothing written when k is below 1.
 */
int64_t qx_index_search_filtered(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                                 const float* query, uint32_t k, int64_t* out_ids,
                                 float* out_scores);

/*
 * Lists the ids of the visible rows that pass a test, in walk order.
 *
 * mode, column, value  the test, as in qx_index_search_filtered.
 * out_ids              receives the ids; room for qx_index_visible_count is enough.
 *
 * Returns the number of ids written.
 */
int64_t qx_index_match_ids(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                           int64_t* out_ids);

/*
 * Lists the ids of all visible rows, in walk order.
 *
 * out_ids  receives the ids; room for qx_index_visible_count is needed.
 *
 * Returns the number of ids written.
 */
int64_t qx_index_visible_ids(const QxIndex* index, int64_t* out_ids);

/*
 * Returns the number of visible rows.
 */
int64_t qx_index_visible_count(const QxIndex* index);

/*
 * Copies all visible rows out, bit for bit, in walk order: enough to build a new index that
 * answers current reads alike.
 *
 * out_vectors  receives the vectors, row-major; room for qx_index_visible_count * dim floats.
 * out_ids      receives the ids; room for qx_index_visible_count.
 *
 * Returns the number of rows written.
 */
int64_t qx_index_export_visible(const QxIndex* index, float* out_vectors, int64_t* out_ids);

#ifdef __cplusplus
}
#endif

/* ---- Conventions, continued -------------------------------------------------------------- */

/*
 * 12. Memory. What this version takes, so that a host can plan; it is not promised, and another
 *    version may take more or less. The blocks that an index holds are of exactly these sizes
 *    together, in whatever order its calls came. P(x) is the smallest power of two not below x, and
 *    P(0) = 0. M(x) is what a table of x keys takes: M(0) = 0, 96 up to 4 keys, otherwise 24 P(x),
 *    or 32 P(x) from 2^27 + 1 keys on.
 *
 *      the index itself     472
 *      a build of n rows    4 n dim, rounded up to a multiple of 64,
 *                           + 8 n + 8 (largest id + 1) + 16 n_parts; again for each further build
 *      the latest build     8 d + C(n)
 *      r delta rows         M(r) + 16 P(r) + 4 P(r dim) + C(P(r))
 *      t deleted ids        M(t)
 *      metadata of m ids    M(m) + 32 P(ncols) + M(m) for each column
 *      s IVF structures     M(s) + 128 P(s)
 *                           + 4 dim nlist + 8 n_ids + 4 (nlist + 1) for each of them
 *                           + C(n_ids) + R(8 n_ids) for those whose members have codes
 *
 *    d counts the rows of the latest build that are not the last of their id, r the distinct ids
 *    ever inserted, t those ever deleted, m those ever given metadata; for a column, m counts from
 *    the first call that had it. s counts the keys since the last qx_index_clear_ivf. A product or
 *    sum below 0 counts as 0. Where the dimension has changed, r dim adds up those at which the
 *    rows were first inserted.
 *
 *    C(x) is what codes of x rows take, from which searches tell the rows that need not be scored:
 *    2 (x ceil(dim / 2) + 64), each of the two rounded up to a multiple of 64, + 4 x, rounded up
 *    likewise, + 12 ceil(x / 32); all rounded up by R, to a multiple of 64, from 2^22 on of 2^21:
 *    about dim + 5 bytes a row. There are codes of the n or r rows of a dimension from 8 to 8192,
 *    if they are 512 or more with 32,768 floats or more; none of a delta with rows of several
 *    dimensions, none where memory for them cannot be allocated, and none in a library that was
 *    built without them. The members of an IVF structure have codes too, in the order of its
 *    lists, if the base and n_ids rows can have them, each member has a base row, those rows do
 *    not just follow each other, and no more than n members of all structures have codes then.
 *    They are made by the build or the qx_index_set_ivf that comes last.
 *
 *    One million rows of 768 floats with ids from 0, of which 10,000 were inserted again:
 *    472 + 3,072,000,000 + 8,000,000 + 8,000,000 + 773,849,088 for the base, 393,216 + 262,144 +
 *    33,554,432 + 14,680,064 for the delta: 3,910,739,416 bytes.
 *
 *    This holds where pointers have 64 bits. What the heap needs for itself comes on top, and for
 *    a moment so do the old block of an array that grows (at most half as large as the new one),
 *    the old arrays of an IVF structure that is replaced, and the array of a qx_index_search_ivf.
 */

#endif /* QX_RUNTIME_H */
