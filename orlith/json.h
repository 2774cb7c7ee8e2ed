// Builds JSON documents: a value type over the framework's JSON objects that frees itself.
//   Json node = Json::object();
//   node.set("id", id).set("weight", weight).set("share", 0.25);
//   session.out << node.text() << "\n";
#ifndef ORLITH_JSON_H
#define ORLITH_JSON_H

#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "orlith/text.h"
#include "ruxo/json.h"

class Json {
 public:
  Json() = default;  // null
  Json(std::nullptr_t) {}
  Json(std::same_as<bool> auto value) : object_(ruxo_json_new_boolean(value)) {}
  template <std::signed_integral T>
  Json(T value) : object_(ruxo_json_new_int(value)) {}
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) Json(T value) : object_(ruxo_json_new_uint(value)) {}
  // Not-a-number and the infinities, which JSON cannot write, are null.
  Json(double value) : object_(ruxo_json_new_double(value)) {}
  // Bytes from outside may stand here: what is not UTF-8 is written as \xNN.
  Json(std::string_view text) {
    const std::string valid = valid_utf8(text);
    object_.reset(ruxo_json_new_string_len(valid.data(), valid.size()));
  }
  Json(const std::string &text) : Json(std::string_view(text)) {}
  Json(const char *text) : Json(std::string_view(text)) {}
  Json(Json &&) = default;
  Json &operator=(Json &&) = default;

  static Json object() { return Json(ruxo_json_new_object(), 0); }
  static Json array() { return Json(ruxo_json_new_array(), 0); }
  // A float keeps its own shortest digits: 0.1f is 0.1, not 0.10000000149011612.
  static Json of_float(float value);

  // The members are taken over; the same object again, for chaining.
  Json &set(const char *key, Json value) {
    ruxo_json_object_set(object_.get(), key, value.object_.release());
    return *this;
  }
  Json &add(Json value) {
    ruxo_json_array_add(object_.get(), value.object_.release());
    return *this;
  }
  // The compact document, without a line end.
  std::string text() const { return object_ ? ruxo_json_text(object_.get()) : "null"; }

 private:
  struct Free {
    void operator()(ruxo_json_object *object) const { ruxo_json_free(object); }
  };
  Json(ruxo_json_object *object, int) : object_(object) {}
  std::unique_ptr<ruxo_json_object, Free> object_;
};

#endif
