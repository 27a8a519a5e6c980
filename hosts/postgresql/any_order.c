/* The peer of the benchmark: an operator that adds products in the order that is fastest. */
#include "fmgr.h"
#include "utils/array.h"

PG_MODULE_MAGIC;
PG_FUNCTION_INFO_V1(any_order);

Datum any_order(PG_FUNCTION_ARGS) {
  ArrayType *a = PG_GETARG_ARRAYTYPE_P(0), *b = PG_GETARG_ARRAYTYPE_P(1);
  const float *x = (const float*)ARR_DATA_PTR(a), *y = (const float*)ARR_DATA_PTR(b);
  int n = ArrayGetNItems(ARR_NDIM(a), ARR_DIMS(a));
  float sum = 0;
  if (n != ArrayGetNItems(ARR_NDIM(b), ARR_DIMS(b))) elog(ERROR, "dimensions differ");
  for (int i = 0; i < n; i++) sum += x[i] * y[i];
  PG_RETURN_FLOAT4(-sum);
}
