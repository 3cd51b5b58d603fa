#pragma once
// The route table: every method and path the server answers, in the order --dump-routes prints
// them. Registration and the printed table come from this one list, so they cannot drift apart.

#include <vector>

#include "handler/context.h"
#include "http/router.h"

namespace quill {

// The routes with their handlers bound to `ctx` (which must outlive them).
std::vector<http::Route> routeTable(Context& ctx);

// A router holding routeTable(ctx).
http::Router makeRouter(Context& ctx);

}  // namespace quill
