#pragma once
// The route table: every method and path the server answers, and who may call it, in the order
// --dump-routes prints them. Registration, the gate's judgement and the printed table come from
// this one list, so they cannot drift apart.

#include <vector>

#include "app/access.h"
#include "handler/context.h"
#include "http/router.h"

namespace quill {

struct TableRoute {
  Access access;
  http::Route route;
};

// The routes with their handlers bound to `ctx` (which must outlive them).
std::vector<TableRoute> routeTable(Context& ctx);

// A router holding routeTable(ctx), each route behind the gate with its access.
http::Router makeRouter(Context& ctx);

}  // namespace quill
