// Records of any definition: the stream is what a writer that goes bit by bit makes, in a buffer that always has just
// the size that was asked for; and all come back, up to the first one that one of the two kept rules spoils: a raw
// field off a byte boundary, three trailing zeros in a 64-bit exclusive or.
#include "fuzz/util/cfssz_input.h"

using namespace cfssz_model;

namespace {

constexpr uint16_t kSignature = 0xc0de;
constexpr size_t kMostRecords = 200;

// Each field is its last value, or that with some bits turned: a byte says which, and how many further bytes to use.
Record take_record(const Layout &layout, const Record &last, const uint8_t **data, size_t *size) {
  Record record = last;
  for (size_t i = 0; i < record.size(); ++i) {
    const uint8_t shape = take_byte(data, size);
    uint64_t bits = 0;
    for (int n = shape & 7; n > 0; --n) bits = bits << 8 | take_byte(data, size);
    bits <<= (shape >> 3 & 7) * 8;
    record[i] = layout.fields[i].wrap((shape & 0x40) != 0 ? record[i] + bits : record[i] ^ bits);
  }
  return record;
}

bool comes_back(const Layout &layout, const Record &record, const Record &last) {
  if (layout.mixes_raw_and_packed()) return false;
  for (size_t i = 0; i < record.size(); ++i) {
    const Field &field = layout.fields[i];
    if (field.enc == CFSSZ_XOR_VARBIT && field.bits() == 64 && trailing_zeros(record[i] ^ last[i], 64) == 3)
      return false;
  }
  return true;
}

void check_stream(const Layout &layout, const DefinitionPtr &def, const Bytes &stream,
                  const std::vector<Record> &records) {
  const StatePtr state(cfssz_dec_state_alloc(def.get(), stream.data(), stream.size()));
  require(state != nullptr && state->nelem == records.size());
  Record last(layout.fields.size());
  for (const Record &record : records) {
    if (layout.fields.empty() || !comes_back(layout, record, last)) return;
    Bytes bytes(layout.struct_bytes());
    require(cfssz_dec_state_next(state.get(), stream.data(), stream.size(), bytes.data()) > 0);
    require(layout.read(bytes) == record);
    last = record;
  }
  require(cfssz_dec_state_next(state.get(), stream.data(), stream.size(), nullptr) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Layout layout = take_layout(&data, &size);
  const DefinitionPtr def = layout.compile(kSignature);
  const StatePtr state(cfssz_enc_state_alloc(def.get()));
  TightBuffer tight(def.get());
  Encoder model(layout);
  std::vector<Record> records;
  Record last(layout.fields.size());
  while (size > 0 && !layout.fields.empty() && records.size() < kMostRecords) {
    last = take_record(layout, last, &data, &size);
    records.push_back(last);
    model.add(last);
    require(tight.add(state.get(), layout.lay_out(last)));
  }
  const size_t len = cfssz_enc_state_finalize(state.get(), tight.data(), tight.size());
  const Bytes stream(tight.data(), tight.data() + len);
  require(stream == model.stream(kSignature));
  check_stream(layout, def, stream, records);
  return 0;
}
