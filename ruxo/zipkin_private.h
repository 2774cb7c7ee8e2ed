// What logging asks of tracing.
#ifndef RUXO_ZIPKIN_PRIVATE_H
#define RUXO_ZIPKIN_PRIVATE_H

#include <string>

namespace ruxo {

// Keeps the message as an annotation of this thread's active span, if that collects logs. Under log_lock().
void annotate_active_span(const std::string &message);

}  // namespace ruxo

#endif
