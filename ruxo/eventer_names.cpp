// The names of callbacks.
#include <map>
#include <string>
#include <string_view>

#include "ruxo/eventer_private.h"
#include "ruxo/guard_private.h"

namespace {

// Entries are never removed: the names handed out stay valid for the life of the process.
struct CallbackNames {
  std::mutex lock;  // guards both maps; held across a fork
  std::map<std::string, eventer_func_t, std::less<>> by_name;
  std::map<eventer_func_t, const char *> by_function;  // the first name of each function

  int add(std::string_view name, eventer_func_t function) {
    const std::lock_guard guard(lock);
    const auto [entry, added] = by_name.try_emplace(std::string(name), function);
    if (!added) return entry->second == function ? 0 : -1;
    by_function.try_emplace(function, entry->first.c_str());
    return 0;
  }
};

// Never destroyed, so that threads which outlive main() can still ask.
CallbackNames &names() {
  static CallbackNames *const instance = new CallbackNames;
  return *instance;
}

}  // namespace

std::mutex &ruxo::callback_names_lock() {
  return names().lock;
}

int eventer_name_callback(const char *name, eventer_func_t function) {
  return ruxo::guarded(-1, [&] { return names().add(name, function); });
}

eventer_func_t eventer_callback_for_name(const char *name) {
  CallbackNames &known = names();
  const std::lock_guard guard(known.lock);
  const auto entry = known.by_name.find(std::string_view(name));
  return entry == known.by_name.end() ? nullptr : entry->second;
}

const char *eventer_name_for_callback(eventer_func_t function) {
  CallbackNames &known = names();
  const std::lock_guard guard(known.lock);
  const auto entry = known.by_function.find(function);
  return entry == known.by_function.end() ? nullptr : entry->second;
}
