// The signature: SHA-256 over one record a node. What was added to topologies over time (copy counts other
// than 2, sides) enters only where it is used, so that older topologies keep their signature.
#include <arpa/inet.h>

#include <cstring>

#include "liborlith/topo/topo_private.h"

namespace {

constexpr int kUnsignedCopies = 2;  // the copy count that leaves no trace in the signature

template <class Record>
Record node_record(const host_config &host) {
  Record record{};
  ruxo_uuid_unparse_lower(host.id, record.id_str);
  record.net_weight = htons(host.weight);
  if constexpr (requires { record.ringside; }) record.ringside = htons(static_cast<uint16_t>(host.ringside));
  return record;
}

template <class Record>
void sign(std::span<const host_config> hosts, int write_copies, uint8_t *signature) {
  std::vector<Record> records;
  records.reserve(hosts.size() + 1);
  for (const host_config &host : hosts) records.push_back(node_record<Record>(host));
  if (write_copies != kUnsignedCopies) {
    Record closing{};
    closing.net_weight = htons(static_cast<uint16_t>(write_copies));
    records.push_back(closing);
  }
  topo_hash(records.data(), records.size() * sizeof(Record), signature);
}

}  // namespace

void topo_sign(std::span<const host_config> hosts, int write_copies, bool sided, uint8_t *signature) {
  if (sided) {
    sign<host_config_sigpart_withside>(hosts, write_copies, signature);
  } else {
    sign<host_config_sigpart>(hosts, write_copies, signature);
  }
}
