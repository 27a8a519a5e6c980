/*
 * The log has an entry for each changed row, with the transaction that changed it. A row may differ
 * between two snapshots only if it has an entry of a transaction that one of them sees and the
 * other does not. Entries that are rolled back are invisible to any reader of the log.
 */
#include "access/genam.h"
#include "access/table.h"
#include "access/transam.h"
#include "access/xact.h"
#include "catalog/pg_type.h"
#include "extension/qx.h"
#include "lib/qunique.h"
#include "utils/fmgroids.h"
#include "utils/snapmgr.h"

uint64 qx_full_xid(TransactionId xid) {
  FullTransactionId next = ReadNextFullTransactionId();
  uint32 epoch = EpochFromFullTransactionId(next);
  if (xid > XidFromFullTransactionId(next)) epoch--;
  return U64FromFullTransactionId(FullTransactionIdFromEpochAndXid(epoch, xid));
}

static int compare_xids(const void* a, const void* b) {
  uint64 x = *(const uint64*)a, y = *(const uint64*)b;
  return (x > y) - (x < y);
}

void qx_write_snapshot(StringInfo to, Snapshot snapshot, uint32 relation_file) {
  /* In recovery all transactions in progress are in subxip. */
  bool recovery = snapshot->takenDuringRecovery;
  uint32 n = recovery ? (uint32)snapshot->subxcnt : snapshot->xcnt;
  QxHorizon horizon = {qx_full_xid(snapshot->xmin), qx_full_xid(snapshot->xmax), relation_file, n};
  uint64* running = palloc(sizeof *running * n + 1);
  for (uint32 i = 0; i < n; i++) {
    running[i] = qx_full_xid(recovery ? snapshot->subxip[i] : snapshot->xip[i]);
  }
  qsort(running, n, sizeof *running, compare_xids);
  appendBinaryStringInfo(to, (const char*)&horizon, sizeof horizon);
  appendBinaryStringInfo(to, (const char*)running, (int)(sizeof *running * n));
  pfree(running);
}

QxSnapshot qx_read_snapshot(const char** from) {
  QxSnapshot snapshot;
  Size size;
  qx_take(from, &snapshot.horizon, sizeof snapshot.horizon);
  size = sizeof(uint64) * snapshot.horizon.n_running;
  snapshot.running = palloc(size + 1);
  qx_take(from, snapshot.running, size);
  return snapshot;
}

QxSnapshot qx_snapshot_of(Snapshot snapshot, uint32 relation_file) {
  StringInfoData copy;
  const char* from;
  QxSnapshot made;
  initStringInfo(&copy);
  qx_write_snapshot(&copy, snapshot, relation_file);
  from = copy.data;
  made = qx_read_snapshot(&from);
  pfree(copy.data);
  return made;
}

Snapshot qx_fresh_snapshot(const QxDefinition* d) {
  return RegisterSnapshot(GetCatalogSnapshot(d->log));
}

static bool committed_before(uint64 xid, const QxSnapshot* snapshot) {
  if (xid < snapshot->horizon.xmin) return true;
  if (xid >= snapshot->horizon.xmax) return false;
  return bsearch(&xid, snapshot->running, snapshot->horizon.n_running, sizeof xid, compare_xids) ==
         NULL;
}

static int compare_keys(const void* a, const void* b) {
  const bytea *x = *(bytea*const*)a, *y = *(bytea*const*)b;
  int difference = memcmp(VARDATA(x), VARDATA(y), Min(VARSIZE(x), VARSIZE(y)) - VARHDRSZ);
  if (difference != 0) return difference;
  return (VARSIZE(x) > VARSIZE(y)) - (VARSIZE(x) < VARSIZE(y));
}

/* How far the log was pruned, as `reading` sees it. */
static uint64 pruned_until(const QxDefinition* d, Snapshot reading) {
  return (uint64)qx_read_tables(d->tables, d->table, QX_TABLES_PRUNED, reading);
}

typedef struct Reading {
  const QxDefinition* d;
  Relation log;
  Snapshot snapshot;
  const QxSnapshot* snapshots; /* which may disagree */
  int n;
  uint64 own;
  QxChanges changes;
  int room;
} Reading;

/* Own changes count also where they came later than the snapshot: they are read by it all the same.
 */
static bool differs(uint64 xid, const Reading* r) {
  bool seen = committed_before(xid, &r->snapshots[0]);
  for (int i = 1; i < r->n; i++) {
    if (committed_before(xid, &r->snapshots[i]) != seen) return true;
  }
  return xid == r->own;
}

static void add_change(Reading* r, Datum key, bool null) {
  QxChanges* changes = &r->changes;
  if (null) {
    changes->all = true;
    return;
  }
  if (changes->count == r->room) {
    r->room = Max(64, r->room * 2);
    changes->keys = changes->keys == NULL
                        ? palloc(sizeof(bytea*) * (Size)r->room)
                        : repalloc_huge(changes->keys, sizeof(bytea*) * (Size)r->room);
  }
  changes->keys[changes->count++] = DatumGetByteaPCopy(key);
}

static void read_entries(Reading* r, uint64 first, uint64 last) {
  ScanKeyData keys[3];
  SysScanDesc scan;
  HeapTuple entry;
  ScanKeyInit(&keys[0], 1, BTEqualStrategyNumber, F_OIDEQ, ObjectIdGetDatum(r->d->table));
  ScanKeyInit(&keys[1], 2, BTGreaterEqualStrategyNumber, F_INT8GE, Int64GetDatum((int64)first));
  ScanKeyInit(&keys[2], 2, BTLessEqualStrategyNumber, F_INT8LE, Int64GetDatum((int64)last));
  scan = systable_beginscan(r->log, r->d->log_key, true, r->snapshot, 3, keys);
  while ((entry = systable_getnext(scan)) != NULL) {
    bool null;
    uint64 xid = (uint64)DatumGetInt64(heap_getattr(entry, 2, RelationGetDescr(r->log), &null));
    Datum key = heap_getattr(entry, 3, RelationGetDescr(r->log), &null);
    if (differs(xid, r)) add_change(r, key, null);
  }
  systable_endscan(scan);
}

/*
 * Transactions from the lowest xmax on are unseen by a snapshot, and earlier ones may differ only
 * if they ran in some. So what a long one has logged is not read again and again, nor what was
 * logged beside it.
 */
QxChanges qx_changes_between(const QxDefinition* d, Snapshot reading, const QxSnapshot* snapshots,
                             int n, bool all_running) {
  uint64 until = snapshots[0].horizon.xmax, first;
  Reading r = {d, table_open(d->log, AccessShareLock), reading, snapshots, n, 0, {0}, 0};
  r.own = U64FromFullTransactionId(GetTopFullTransactionIdIfAny());
  for (int i = 1; i < n; i++) until = Min(until, snapshots[i].horizon.xmax);
  first = until;
  for (int i = 0; i < n; i++) {
    for (uint32 j = 0; j < snapshots[i].horizon.n_running; j++) {
      uint64 xid = snapshots[i].running[j];
      if (xid >= until || xid == r.own || !(all_running || differs(xid, &r))) continue;
      first = Min(first, xid);
      read_entries(&r, xid, xid);
    }
  }
  if (r.own != 0 && r.own < until) read_entries(&r, r.own, r.own);
  read_entries(&r, until, PG_INT64_MAX);
  table_close(r.log, AccessShareLock);
  if (pruned_until(d, reading) > first) r.changes.all = true;
  qsort(r.changes.keys, (size_t)r.changes.count, sizeof(bytea*), compare_keys);
  r.changes.count =
      (int)qunique(r.changes.keys, (size_t)r.changes.count, sizeof(bytea*), compare_keys);
  return r.changes;
}
