#include <stdlib.h>

#include "liborlith/util/vask_art.h"
#include "test/abi/abi_checks.h"

static int count_key(void *data, const unsigned char *key, uint32_t key_len, void *value) {
  (void)key, (void)key_len, (void)value;
  ++*(int *)data;
  return 0;
}

static int count_partial(void *data, const unsigned char *key, uint32_t key_len, bool partial, void *value) {
  (void)key, (void)key_len, (void)value;
  *(int *)data += partial ? 100 : 1;
  return 0;
}

static void count_release(void *closure, const vask_art_tree *t, void *value) {
  (void)t, (void)value;
  ++*(int *)closure;
}

static void insert_text(vask_art_tree *tree, const char *key, int *value) {
  CHECK(vask_art_insert(tree, (const unsigned char *)key, (int)strlen(key) + 1, value) == NULL);
}

static void call_art_walks(vask_art_tree *tree) {
  int keys = 0;
  CHECK(vask_art_iter(tree, count_key, &keys) == 0 && keys == 3);
  CHECK(vask_art_iter_prefix(tree, (const unsigned char *)"cpu", 3, count_key, &keys) == 0 && keys == 5);
  CHECK(vask_art_iter_bfsp_prefix(tree, (const unsigned char *)"", 0, count_partial, &keys) == 0 &&
        keys == 111);
  CHECK_TEXT((const char *)vask_art_minimum(tree)->key, "cpu|idle");
  CHECK_TEXT((const char *)vask_art_maximum(tree)->key, "mem");
}

void call_art_tree(void) {
  int one = 1, two = 2, three = 3, released = 0;
  const unsigned char *key = (const unsigned char *)"cpu|idle";
  vask_art_tree_interposition_t ops = vask_art_tree_default_interposition;
  ops.release = ops.release_tmp = count_release;
  vask_art_tree tree;
  CHECK(vask_art_tree_init(&tree) == 0 && tree.ser == &self_image_ser);
  vask_art_tree_interpose(&tree, NULL, &ops, &released);
  insert_text(&tree, "cpu|idle", &one);
  insert_text(&tree, "cpu|user", &two);
  insert_text(&tree, "mem", &three);
  CHECK(vask_art_insert_no_replace(&tree, key, 9, &two) == &one);
  CHECK(vask_art_search(&tree, key, 9) == &one && vask_art_size(&tree) == 3);
  call_art_walks(&tree);
  vask_art_release(&tree, &one);
  vask_art_release_tmp(&tree, &one);
  CHECK(released == 2);
  CHECK(vask_art_delete(&tree, key, 9) == &one && vask_art_size(&tree) == 2);
  CHECK(vask_art_tree_destroy(&tree) == 0);
  void *cell = vask_art_default_alloc(NULL, &tree, 16);
  CHECK(cell != NULL);
  vask_art_default_free(NULL, &tree, cell);
}

static vask_art_tree tree_in_image(file_serializer_t *image, uintptr_t root) {
  static vask_art_tree_interposition_t read_only = {.read_only = true};
  vask_art_tree tree;
  char *err = NULL;
  CHECK(vask_art_serializer_verified_tree_at_offset(image, &tree, root, &read_only, NULL, &err) &&
        err == NULL);
  CHECK(!vask_art_serializer_verified_tree_at_offset(image, &tree, 4, &read_only, NULL, &err));
  CHECK_TEXT(err, "node at offset 4: not at a multiple of 8");
  free(err);
  CHECK(vask_art_serializer_tree_at_offset(image, &tree, root, &read_only, NULL));
  return tree;
}

void call_art_image(void) {
  int one = 1;
  uintptr_t root = 0;
  vask_art_tree tree;
  file_serializer_t *image = vask_art_serializer_new("tree.image", 3, true);
  CHECK(image != NULL);
  vask_art_tree_init(&tree);
  insert_text(&tree, "key", &one);
  CHECK(vask_art_serializer_write_tree(image, &tree, NULL, NULL, &root) && root == 9);
  const uintptr_t block = vask_art_serializer_write_custom(image, "text", 5);
  CHECK(vask_art_serializer_finalize(image, VASK_ART_SER_COMPLETE));
  vask_art_serializer_destroy(image);
  vask_art_tree_destroy(&tree);

  image = vask_art_serializer_new("tree.image", 3, false);
  CHECK(image != NULL);
  tree = tree_in_image(image, root);
  CHECK(vask_art_search(&tree, (const unsigned char *)"key", 4) == &one);
  CHECK_TEXT(vask_art_serializer_offset_to_address(image, block), "text");
  vask_art_serializer_destroy(image);
}
