/* What the server loads: settings, and scores as SQL functions, the judges of the tests. */
#include <math.h>

#include "extension/qx.h"
#include "utils/array.h"
#include "utils/guc.h"

PG_MODULE_MAGIC;

int32 qx_memory_limit = 0;

PGDLLEXPORT void _PG_init(void);

void _PG_init(void) {
  DefineCustomIntVariable("qx.memory_limit", "Most memory of the rows of an index.",
                          "0 is no limit. It counts when an index is loaded.", &qx_memory_limit, 0,
                          0, PG_INT32_MAX, PGC_SIGHUP, GUC_UNIT_MB, NULL, NULL, NULL);
  MarkGUCPrefixReserved("qx");
  qx_watch_definitions();
}

PG_FUNCTION_INFO_V1(qx_inner_product);
PG_FUNCTION_INFO_V1(qx_squared_distance);

static int32 dims_of_both(ArrayType* a, ArrayType* b) {
  const char* problem = qx_vector_problem(a, 0);
  if (problem == NULL) problem = qx_vector_problem(b, ArrayGetNItems(1, ARR_DIMS(a)));
  if (problem != NULL) ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem));
  return ArrayGetNItems(1, ARR_DIMS(a));
}

Datum qx_inner_product(PG_FUNCTION_ARGS) {
  ArrayType *a = PG_GETARG_ARRAYTYPE_P(0), *b = PG_GETARG_ARRAYTYPE_P(1);
  int32 dim = dims_of_both(a, b);
  const float *x = qx_numbers(a), *y = qx_numbers(b);
  float sum = 0;
  for (int32 i = 0; i < dim; i++) sum = fmaf(x[i], y[i], sum);
  PG_RETURN_FLOAT4(sum);
}

Datum qx_squared_distance(PG_FUNCTION_ARGS) {
  ArrayType *a = PG_GETARG_ARRAYTYPE_P(0), *b = PG_GETARG_ARRAYTYPE_P(1);
  int32 dim = dims_of_both(a, b);
  const float *x = qx_numbers(a), *y = qx_numbers(b);
  float sum = 0;
  for (int32 i = 0; i < dim; i++) {
    float difference = x[i] - y[i];
    float square = difference * difference;
    sum = sum + square;
  }
  PG_RETURN_FLOAT4(sum);
}
