/* What the server loads: settings, and scores as SQL functions and operators, which are exact. */
#include <math.h>

#include "extension/qx.h"
#include "utils/array.h"
#include "utils/guc.h"

PG_MODULE_MAGIC;

int32 qx_memory_limit = 0;
int32 qx_search_threads = 0;

PGDLLEXPORT void _PG_init(void);

void _PG_init(void) {
  DefineCustomIntVariable("qx.memory_limit", "Most memory of the indexes of the server.",
                          "0 is no limit.", &qx_memory_limit, 0, 0, PG_INT32_MAX, PGC_SIGHUP,
                          GUC_UNIT_MB, NULL, NULL, NULL);
  DefineCustomIntVariable("qx.search_threads", "Most threads of a search.",
                          "0 is as many as there are CPUs.", &qx_search_threads, 0, 0, 1024,
                          PGC_USERSET, 0, NULL, NULL, NULL);
  qx_offer_order();
  DefineCustomIntVariable("qx.shard_timeout", "Most time that a search waits for a shard.",
                          "0 is no limit.", &qx_shard_timeout, 10000, 0, PG_INT32_MAX, PGC_USERSET,
                          GUC_UNIT_MS, NULL, NULL, NULL);
  DefineCustomBoolVariable("qx.partial_answers", "Answers without shards that do not answer.", NULL,
                           &qx_partial_answers, false, PGC_USERSET, 0, NULL, NULL, NULL);
  MarkGUCPrefixReserved("qx");
  qx_watch_definitions();
  qx_watch_commits();
  qx_watch_pending();
}

PG_FUNCTION_INFO_V1(qx_inner_product);
PG_FUNCTION_INFO_V1(qx_cosine);
PG_FUNCTION_INFO_V1(qx_squared_distance);
PG_FUNCTION_INFO_V1(qx_by_inner_product);
PG_FUNCTION_INFO_V1(qx_by_cosine);

static int32 dims_of_both(ArrayType* a, ArrayType* b) {
  const char* problem = qx_vector_problem(a, 0);
  if (problem == NULL) problem = qx_vector_problem(b, ArrayGetNItems(1, ARR_DIMS(a)));
  if (problem != NULL) ereport(ERROR, errcode(ERRCODE_DATA_EXCEPTION), errmsg("%s", problem));
  return ArrayGetNItems(1, ARR_DIMS(a));
}

static float inner_product(const float* x, const float* y, int32 dim) {
  float sum = 0;
  for (int32 i = 0; i < dim; i++) sum = fmaf(x[i], y[i], sum);
  return sum;
}

/* A vector as an index of cosines keeps it: divided by its norm, unless that is 1 but for rounding.
 */
static const float* normalised(const float* x, int32 dim) {
  double square = 0, norm;
  float* y;
  for (int32 i = 0; i < dim; i++) square += (double)x[i] * (double)x[i];
  if (square == 0 || fabs(square - 1) <= 0x1.01p-23) return x;
  norm = sqrt(square);
  y = palloc(sizeof(float) * (Size)dim);
  for (int32 i = 0; i < dim; i++) y[i] = (float)((double)x[i] / norm);
  return y;
}

static float product_of(FunctionCallInfo fcinfo, bool cosine) {
  ArrayType *a = PG_GETARG_ARRAYTYPE_P(0), *b = PG_GETARG_ARRAYTYPE_P(1);
  int32 dim = dims_of_both(a, b);
  const float *x = qx_numbers(a), *y = qx_numbers(b);
  return cosine ? inner_product(normalised(x, dim), normalised(y, dim), dim)
                : inner_product(x, y, dim);
}

Datum qx_inner_product(PG_FUNCTION_ARGS) { PG_RETURN_FLOAT4(product_of(fcinfo, false)); }
Datum qx_cosine(PG_FUNCTION_ARGS) { PG_RETURN_FLOAT4(product_of(fcinfo, true)); }
Datum qx_by_inner_product(PG_FUNCTION_ARGS) { PG_RETURN_FLOAT4(0 - product_of(fcinfo, false)); }
Datum qx_by_cosine(PG_FUNCTION_ARGS) { PG_RETURN_FLOAT4(0 - product_of(fcinfo, true)); }

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
