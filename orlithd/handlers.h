// What the node answers, one source file a subject. doc/orlithd.md has the endpoints as users see them.
#ifndef ORLITHD_HANDLERS_H
#define ORLITHD_HANDLERS_H

#include "orlithd/exchange.h"
#include "orlithd/node.h"
#include "ruxo/http.h"

// These answer within the call, or hand the request on. They may throw before they answer.
void get_state(Node &node, Exchange &exchange);
void get_topology(Node &node, Exchange &exchange);  // /topology/xml/<signature>
void get_nnt(Node &node, Exchange &exchange);       // /nnt/<period>/<check uuid>/<path form>
void get_proxy(Node &node, Exchange &exchange);     // /proxy/nnt/<period>/<check uuid>/<path form>
void get_metrics(Node &node, Exchange &exchange);
void get_livez(Node &node, Exchange &exchange);
void get_readyz(Node &node, Exchange &exchange);

// PUT /upload/<path>; its closure is the Node.
int put_upload(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len,
               void *closure);

// Registers all of them. 0; -1 without memory.
int add_routes(ruxo_http_server_t *server, Node *node);

#endif
