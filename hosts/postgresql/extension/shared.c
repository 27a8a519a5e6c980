/*
 * A slot in shared memory for each worker of the server: by it a back end wakes the worker of its
 * database, and workers add up what their programs hold.
 */
#include "access/xact.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "postmaster/bgworker_internals.h"
#include "storage/ipc.h"
#include "storage/latch.h"
#include "storage/lwlock.h"
#include "storage/proc.h"
#include "storage/shmem.h"

typedef struct Slot {
  pg_atomic_uint32 database; /* 0: free */
  int process;               /* of ProcGlobal */
  pg_atomic_uint64 bytes;
} Slot;

static Slot* slots; /* max_worker_processes */
static Slot* own;
static bool wake_at_commit;

static void attach(void) {
  bool found;
  if (slots != NULL) return;
  LWLockAcquire(AddinShmemInitLock, LW_EXCLUSIVE);
  slots = ShmemInitStruct("qx", sizeof(Slot) * (Size)max_worker_processes, &found);
  for (int i = 0; !found && i < max_worker_processes; i++) {
    pg_atomic_init_u32(&slots[i].database, 0);
    pg_atomic_init_u64(&slots[i].bytes, 0);
  }
  LWLockRelease(AddinShmemInitLock);
}

static void leave(int code, Datum argument) {
  (void)code;
  (void)argument;
  pg_atomic_write_u64(&own->bytes, 0);
  pg_atomic_write_u32(&own->database, 0);
}

void qx_enter_worker(void) {
  attach();
  LWLockAcquire(AddinShmemInitLock, LW_EXCLUSIVE);
  for (int i = 0; own == NULL && i < max_worker_processes; i++) {
    if (pg_atomic_read_u32(&slots[i].database) == 0) own = &slots[i];
  }
  if (own == NULL) elog(ERROR, "qx: there are more workers than max_worker_processes");
  own->process = MyProc->pgprocno;
  pg_atomic_write_u32(&own->database, MyDatabaseId);
  LWLockRelease(AddinShmemInitLock);
  before_shmem_exit(leave, (Datum)0);
}

void qx_wake_worker(void) {
  attach();
  for (int i = 0; i < max_worker_processes; i++) {
    if (pg_atomic_read_u32(&slots[i].database) != MyDatabaseId) continue;
    SetLatch(&ProcGlobal->allProcs[slots[i].process].procLatch);
  }
}

uint64 qx_note_bytes(uint64 bytes) {
  uint64 sum = 0;
  pg_atomic_write_u64(&own->bytes, bytes);
  for (int i = 0; i < max_worker_processes; i++) sum += pg_atomic_read_u64(&slots[i].bytes);
  return sum;
}

/* Whoever is woken by it sees what was committed. */
static void at_end(XactEvent event, void* argument) {
  (void)argument;
  if (event == XACT_EVENT_COMMIT && wake_at_commit) qx_wake_worker();
  if (event == XACT_EVENT_COMMIT || event == XACT_EVENT_ABORT || event == XACT_EVENT_PREPARE) {
    wake_at_commit = false;
  }
}

void qx_wake_at_commit(void) {
  attach(); /* which must not fail later */
  wake_at_commit = true;
}

void qx_watch_commits(void) { RegisterXactCallback(at_end, NULL); }
