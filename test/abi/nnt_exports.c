#include "liborlith/nnt/nnt.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "liborlith/nnt/nnt_v1.h"
#include "test/abi/abi_checks.h"

static const nnt_multitype seven = {.type = NNT_TYPE_INT32, .count = 1, .value = {.v_int32 = 7}};

static nnt_handle *new_file(const char *name, uint64_t epoch) {
  char *error = NULL;
  CHECK(nnt_create("NNT1", name, epoch, 60, 0600) == 0);
  nnt_handle *h = nnt_open(name, &error);
  CHECK(h != NULL && error == NULL);
  if (h == NULL) abort();
  return h;
}

static void call_accumulation(void) {
  nnt_multitype a = seven, slots[2] = {seven, seven};
  CHECK(nnt_multitype_accum_counts(&a, 1, 1, 1, &seven, 1, 1, 1) == 2);
  nnt_multitype_accum(&a, &seven);
  CHECK(a.count == 2 && a.value.v_uint64 == 7);
  a.type = NNT_TYPE_ABSENT;
  a.count = 0;
  nnt_multitype_rollup(&a, 0, 2, slots, 60);
  CHECK(a.count == 2);

  float derivatives[1], counters[1];
  stddev_t stddev = {.derivative_values = derivatives, .counter_values = counters};
  api_nnt_multitype result = {.v = seven}, previous = {.v = seven}, current = {.v = seven};
  int32_t weight = 0;
  current.v.derivative = 60.0F;
  nnt_multitype_accum_second_order(&result, &previous, &current, 0, 60, &stddev, &weight);
  CHECK(result.s.derivative == 1.0F && weight == 60 && stddev.count == 1);
}

static void call_opening(void) {
  char *error = NULL;
  uint64_t epoch = 0, period = 0;
  nnt_close(new_file("opened", 600));
  nnt_handle *h = nnt_open_sync("opened", false, &error);
  nnt_get_metadata(h, &epoch, &period);
  CHECK(epoch == 600 && period == 60 && nnt_close(h) == 0);
  h = nnt_open_fd(open("opened", O_RDWR), &error);
  CHECK(h != NULL && h->sync_on_close && nnt_close(h) == 0);
  h = nnt_open_fd_sync(open("opened", O_RDWR), false, &error);
  CHECK(h != NULL && !h->sync_on_close && nnt_close(h) == 0);
  const int fd = nnt_create_tmp("NNT1", "anonymous", 600, 60, 0600);
  CHECK(fd >= 0 && close(fd) == 0);
}

static void call_slots(nnt_handle *h) {
  nnt_multitype v[2];
  const nnt_multitype two[2] = {seven, seven};
  uint64_t whence = 0;
  CHECK(nnt_put(h, 660, &seven) == 1 && nnt_put_range(h, 720, 2, two) == 2);
  CHECK(nnt_get(h, 600, v) == 1 && v[0].type == NNT_TYPE_ABSENT);
  CHECK(nnt_get_range(h, 720, 2, v) == 2 && v[1].value.v_int32 == 7);
  CHECK(nnt_get_apocalypse(h, &whence) == 0 && whence == 840);
  CHECK(nnt_get_create_time(h, &whence) == 0 && whence > 0);
  CHECK(nnt_sync(h) == 0 && !h->dirty);
}

static void call_whole_files(nnt_handle *h) {
  const char *error = NULL;
  nnt_handle *merged = new_file("merged", 600), *shorter = new_file("shorter", 720),
             *image = new_file("image", 0);
  CHECK(nnt_merge(merged, h, &error) == 0);
  CHECK(nnt_delete(h, shorter, 0) == 2);
  CHECK(nnt_image_from(image, h) == 0);
  const int fd = open("rewound", O_RDWR | O_CREAT | O_EXCL, 0600);
  CHECK(nnt_rewind_epoch(h, 540, fd) == 0 && lseek(fd, 0, SEEK_END) == 16 + 5 * 32);
  CHECK(close(fd) == 0);
  nnt_close(merged);
  nnt_close(shorter);
  nnt_close(image);
}

static void call_view(nnt_handle_readfast *rf) {
  nnt_multitype v[2];
  uint64_t whence = 0;
  nnt_range_raw_data raw;
  CHECK(nnt_get_fast(rf, 660, v) == 1 && v[0].value.v_int32 == 7);
  CHECK(nnt_get_fast_range(rf, 660, 2, v) == 2 && v[1].value.v_int32 == 7);
  CHECK(nnt_get_fast_epoch(rf, &whence) == 0 && whence == 600);
  CHECK(nnt_get_fast_apocalypse(rf, &whence) == 0 && whence == 840);
  CHECK(nnt_get_raw_range(rf, 660, 2, &raw) == 0 && raw.datapoints == 2 && raw.data_size == 64);
  free(raw.new_hdr);
  CHECK(nnt_v1_get_readfast(rf, 660, v) == 1 && v[0].value.v_int32 == 7);
  CHECK(nnt_v1_get_readfast_range(rf, 660, 2, v) == 2);
  CHECK(nnt_v1_get_readfast_apocalypse(rf, &whence) == 0 && whence == 840);
  CHECK(nnt_v1_get_raw_range(rf, 660, 1, &raw) == 0 && raw.datapoints == 1);
  free(raw.new_hdr);
}

static void call_views(nnt_handle *h) {
  nnt_handle_readfast *rf = nnt_acquire_readfast(h);
  CHECK(rf != NULL && rf->len == 16 + 4 * 32);
  if (rf == NULL) return;
  call_view(rf);

  void *copy = malloc(rf->len);
  void *mapped = mmap(NULL, rf->len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (copy == NULL || mapped == MAP_FAILED) abort();
  memcpy(copy, rf->addr, rf->len);
  memcpy(mapped, rf->addr, rf->len);
  nnt_handle_readfast *from_heap = nnt_acquire_transient(copy, rf->len);
  nnt_handle_readfast *from_map = nnt_acquire_transient_mmap(mapped, rf->len);
  CHECK(from_heap != NULL && from_heap->dealloc == nnt_handle_readfast_free);
  CHECK(from_map != NULL && from_map->dealloc == nnt_handle_readfast_munmap);
  nnt_release_readfast(from_heap);
  nnt_release_readfast(from_map);
  nnt_release_readfast(rf);

  nnt_handle_readfast empty = {0};
  nnt_handle_readfast_free(&empty);
  nnt_handle_readfast_munmap(&empty);
}

static void call_version_1(void) {
  nnt_datum_v1 record;
  nnt_multitype v, two[2] = {seven, seven};
  uint64_t whence = 0;
  const char *error = NULL;
  CHECK(v1_encode(&seven, &record) == 0 && v1_decode(&record, &v) == 0 && v.value.v_int32 == 7);

  nnt_handle *h = new_file("v1", 600), *other = new_file("v1 other", 600), *later = new_file("v1 later", 660);
  CHECK(h->opset == &nnt_v1_opset);
  CHECK(nnt_v1_put(h, 600, &seven) == 1 && nnt_v1_put_range(h, 660, 2, two) == 2);
  CHECK(nnt_v1_get(h, 660, &v) == 1 && v.value.v_int32 == 7 && nnt_v1_get_range(h, 600, 2, two) == 2);
  CHECK(nnt_v1_get_apocalypse(h, &whence) == 0 && whence == 780);
  CHECK(nnt_v1_get_create_time(h, &whence) == 0 && whence > 0);
  CHECK(nnt_v1_merge(other, h, &error) == 0 && nnt_v1_delete_range(h, later, 0) == 2);
  const int fd = open("v1 rewound", O_RDWR | O_CREAT | O_EXCL, 0600);
  CHECK(nnt_v1_rewind_epoch(h, 540, fd) == 0 && close(fd) == 0);

  /* The data that opening made, made anew. */
  nnt_v1_close(h);
  CHECK(nnt_v1_init(h) == 0 && h->op_ctx != NULL);
  nnt_handle_readfast *rf = nnt_acquire_readfast(h);
  nnt_v1_uninit_readfast(rf);
  nnt_v1_init_readfast(rf, h);
  CHECK(rf->op_ctx != NULL);
  nnt_release_readfast(rf);
  nnt_close(h);
  nnt_close(other);
  nnt_close(later);
}

void call_nnt(void) {
  call_accumulation();
  call_opening();
  nnt_handle *h = new_file("slots", 600);
  call_slots(h);
  call_whole_files(h);
  call_views(h);
  nnt_close(h);
  call_version_1();
}
