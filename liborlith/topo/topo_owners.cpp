// Placement by metric: a locator's stored hash or the text "ID-NAME", and whether this node is an owner.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/topo/topo.h"
#include "liborlith/topo/topo_private.h"
#include "liborlith/util/metric_locator.h"

namespace {

constexpr size_t kKeyBufferSize = 4134;  // 36 id characters, "-", a name of 4095 bytes, NUL, and one to spare

// "ID-NAME" in a buffer. Too long a key is logged in the name of `caller` and has no length.
class Key {
 public:
  Key(const char *caller, const char *id_str, const char *name) {
    if (strlen(id_str) + strlen(name) + 2 >= sizeof text_) {
      ruxo_log(ruxo_error, "%s: skipping %s-%s, too long\n", caller, id_str, name);
      return;
    }
    const int written = snprintf(text_, sizeof text_, "%s-%s", id_str, name);
    length_ = written < 0 ? 0 : static_cast<size_t>(written);
  }
  bool is_valid() const { return length_ > 0; }
  const char *text() const { return text_; }
  size_t length() const { return length_; }

 private:
  char text_[kKeyBufferSize];
  size_t length_ = 0;
};

bool is_among(host_config *const *owners, int count, const unsigned char *id) {
  return std::any_of(owners, owners + count,
                     [id](const host_config *owner) { return topo_has_id(owner, id); });
}

bool i_am_among(host_config *const *owners, int count) {
  ruxo_uuid_t me;
  topo_me(me);
  return is_among(owners, count, me);
}

}  // namespace

int topo_find_insertion_point_config_locator(const topo_config *tc,
                                             const orlith_metric_locator_t *metric_locator, host_config **loc,
                                             int count) {
  return _topo_find_insertion_point_config(tc, orlith_metric_locator_get_hash(metric_locator), loc, count);
}

int topo_find_insertion_point_config_locator_slow(topo_config *tc,
                                                  const orlith_metric_locator_t *metric_locator,
                                                  host_config **loc, int count) {
  return _topo_find_insertion_point_config_slow(tc, orlith_metric_locator_get_hash(metric_locator), loc,
                                                count);
}

int topo_find_insertion_point(const void *buf, size_t buflen, host_config **loc, int count) {
  const topo_config *tc = topo_active();
  return tc == nullptr ? 0 : topo_find_insertion_point_config(tc, buf, buflen, loc, count);
}

int topo_find_insertion_point_uuidstr_name(const char *id_str, const char *metric_name, host_config **loc,
                                           int count) {
  const Key key("topo_find_insertion_point_uuidstr_name", id_str, metric_name);
  return key.is_valid() ? topo_find_insertion_point(key.text(), key.length(), loc, count) : 0;
}

int topo_find_insertion_point_name(unsigned char *id, const char *metric_name, host_config **loc, int count) {
  char id_str[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(id, id_str);
  return topo_find_insertion_point_uuidstr_name(id_str, metric_name, loc, count);
}

int topo_find_two(topo_config *tc, unsigned char *id, char *metric_name, host_config **h1, host_config **h2) {
  *h1 = nullptr;
  *h2 = nullptr;
  char id_str[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(id, id_str);
  const Key key("topo_find_two", id_str, metric_name);
  if (tc == nullptr || !key.is_valid()) return 0;
  host_config *owners[TOPO_MAX_COPIES] = {};
  const int count = topo_find_insertion_point_config(tc, key.text(), key.length(), owners, 2);
  *h1 = owners[0];
  *h2 = owners[1];
  return count;
}

ruxo_boolean topo_is_mine(const orlith_metric_locator_t *metric_locator) {
  const topo_config *tc = topo_active();
  if (tc == nullptr) return ruxo_false;
  host_config *owners[TOPO_MAX_COPIES];
  return i_am_among(owners, topo_find_insertion_point_config_locator(tc, metric_locator, owners, 0));
}

ruxo_boolean topo_is_mine_uuid_name(const char *uuid_str, const char *metric_str) {
  const Key key("topo_is_mine_uuid_name", uuid_str, metric_str);
  if (!key.is_valid()) return ruxo_false;
  host_config *owners[TOPO_MAX_COPIES];
  return i_am_among(owners, topo_find_insertion_point(key.text(), key.length(), owners, 0));
}

ruxo_boolean topo_is_local_to_topology(const orlith_metric_locator_t *metric_locator, const topo_config *tc,
                                       unsigned char *me, host_config **hc) {
  liborlith_assert(hc);
  if (tc == nullptr) return ruxo_false;
  return is_among(hc, topo_find_insertion_point_config_locator(tc, metric_locator, hc, 0), me);
}
