// What the node counts, in the framework's statistics.
#ifndef ORLITHD_METRICS_H
#define ORLITHD_METRICS_H

#include <cstddef>

struct Node;

// Makes the node's metrics known; it must outlive the last reading of them. Once in a process.
void register_metrics(Node *node);

// Counts one answer: its status, the bytes of its body, how long it took. Any thread; nothing before registration.
void count_answer(int status, size_t body_bytes, double seconds) noexcept;

#endif
