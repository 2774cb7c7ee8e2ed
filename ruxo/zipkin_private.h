// What logging asks of tracing.
#ifndef RUXO_ZIPKIN_PRIVATE_H
#define RUXO_ZIPKIN_PRIVATE_H

#include <string_view>

namespace ruxo {

// Keeps the message as an annotation of this thread's active span, if that collects logs.
void annotate_active_span(std::string_view message);

}  // namespace ruxo

#endif
