/*
 * Labels and columns: searches among the rows that pass a test, which is applied before the best
 * are chosen.
 *
 * Introduces: qx_index_set_rowmeta qx_index_search_filtered qx_index_match_ids
 *             qx_index_export_rowmeta
 *
 * Prints:
 *   label 7: id 3 (0.60), id 4 (0.50)
 *   year 2024: id 1 (1.00), id 4 (0.50)
 *   80 pages: id 3 (0.60)
 *   without metadata: 5
 *   id 4: label 7, year 2024, pages 90
 */
#include <inttypes.h>
#include <stdio.h>

#include "qx_runtime.h"

enum { YEAR, PAGES, COLUMNS };

/* Slots that no row has reached are empty: by id and score. */
static void search(const QxIndex* index, const char* what, uint32_t mode, int32_t column,
                   int64_t value) {
  const float query[2] = {1.0f, 0.0f};
  int64_t found[2];
  float scores[2];
  qx_index_search_filtered(index, mode, column, value, query, 2, found, scores);
  printf("%s:", what);
  for (int i = 0; i < 2 && !(found[i] == QX_EMPTY_ID && scores[i] == QX_EMPTY_SCORE); ++i)
    printf("%s id %" PRId64 " (%.2f)", i == 0 ? "" : ",", found[i], scores[i]);
  printf("\n");
}

int main(void) {
  const float vectors[5 * 2] = {1.0f, 0.0f, 0.9f, 0.1f, 0.6f, 0.4f, 0.5f, 0.5f, 0.4f, 0.6f};
  const int64_t ids[5] = {1, 2, 3, 4, 5};
  const int64_t labels[4] = {6, 6, 7, 7};
  const int64_t values[4 * COLUMNS] = {2024, 300, 2023, 120, 2023, 80, 2024, 90};
  int64_t matched[5], label, row[COLUMNS];
  QxIndex* index = qx_index_new(2, 0);
  qx_index_build(index, vectors, 5, 2, ids, NULL, NULL, NULL, 0);

  /* Metadata belongs to ids; id 5 gets none. */
  if (qx_index_set_rowmeta(index, ids, labels, values, COLUMNS, 4) != 0) return 1;

  search(index, "label 7", QX_FILTER_LABEL, 0, 7);
  search(index, "year 2024", QX_FILTER_COLUMN, YEAR, 2024);
  search(index, "80 pages", QX_FILTER_COLUMN, PAGES, 80);

  if (qx_index_match_ids(index, QX_FILTER_LABEL, 0, QX_MISSING, matched) != 1) return 1;
  printf("without metadata: %" PRId64 "\n", matched[0]);

  qx_index_export_rowmeta(index, &ids[3], 1, &label, row);
  printf("id 4: label %" PRId64 ", year %" PRId64 ", pages %" PRId64 "\n", label, row[YEAR],
         row[PAGES]);
  qx_index_free(index);
  return 0;
}
