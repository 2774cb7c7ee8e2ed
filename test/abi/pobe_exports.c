#include "pobe/pobe.h"

#include "test/abi/abi_checks.h"

static bool refuse_reserved(const char *cat, size_t cat_len, const char *val, size_t val_len) {
  (void)val, (void)val_len;
  return !(cat_len == 9 && memcmp(cat, "reserved:", 9) == 0);
}

void call_pobe(void) {
  pobe_metric_tagset_t set;
  CHECK(pobe_metric_tagset_init(&set, "b:2,a:1", 7) == 0);
  CHECK(set.tag_count == 2 && set.canonical_size == 7 && memcmp(set.tags[1].tag, "a:1", 3) == 0);
  pobe_metric_tagset_cleanup(&set);
  CHECK(set.tag_count == 0 && set.tags == NULL);

  pobe_metric_tagset_context_t *ctx = pobe_metric_tagset_context_alloc();
  pobe_metric_tagset_context_set_validate_function(ctx, refuse_reserved);
  const int refusal = pobe_metric_tagset_init_with_context(&set, "reserved:1", 10, ctx);
  CHECK(refusal == POBE_E_TAG_REFUSED);
  CHECK_TEXT(pobe_error_text(refusal), "the validation function refused a tag");
  pobe_metric_tagset_context_free(ctx);

  static const char name[] = "cpu|ST[b:2,a:1]";
  char canonical[32];
  CHECK(pobe_metric_canonicalize_ex(name, 15, canonical, sizeof canonical, true, true, false) == 15);
  CHECK(memcmp(canonical, "cpu|ST[a:1,b:2]", 15) == 0);
  CHECK(!pobe_metric_tagset_init_if_canonical(&set, name, 15, refuse_reserved));
  CHECK(pobe_metric_tagset_init_if_canonical(&set, canonical, 15, refuse_reserved) && set.tag_count == 2);
  pobe_metric_tagset_cleanup(&set);
}
