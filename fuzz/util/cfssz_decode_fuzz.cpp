// Any bytes as a packed stream, by any definition: what is read, and where it ends or fails, is what a reader that
// goes bit by bit finds. Half of the streams get the definition's signature first.
#include "fuzz/util/cfssz_input.h"

using namespace cfssz_model;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr uint16_t kSignature = 0xc0de;
  const Layout layout = take_layout(&data, &size);
  const DefinitionPtr def = layout.compile(kSignature);
  const bool sign = take_byte(&data, &size) % 2 == 0;
  Bytes stream(data, data + size);
  if (sign && size >= 2) {
    stream[0] = kSignature >> 8;
    stream[1] = kSignature & 0xff;
  }
  const bool fits = size >= 6 && stream[0] == kSignature >> 8 && stream[1] == (kSignature & 0xff);
  const StatePtr state(cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
  require((state != nullptr) == fits);
  if (!fits) return 0;

  Decoder model(layout, stream);
  for (;;) {
    Bytes record(layout.struct_bytes(), 0xdd);
    Record expected;
    const ssize_t bits = cfssz_dec_state_next(state.get(), stream.data(), stream.size(), record.data());
    require(bits == model.next(&expected));
    if (bits <= 0) {
      require(record == Bytes(layout.struct_bytes(), 0xdd));
      if (bits < 0) require(cfssz_dec_state_next(state.get(), stream.data(), size, record.data()) == -1);
      return 0;
    }
    require(layout.read(record) == expected);
  }
}
