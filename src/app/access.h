#pragma once
// Who may call a route: stated beside each route in the route table, judged by the gate
// against the caller before anything else about the request.

#include <optional>
#include <string>
#include <string_view>

#include "app/rate_limiter.h"

namespace quill {

enum class Caller {
  kAnyone,         // open: no token needed
  kPublicChannel,  // anyone while the {channel} is public; otherwise any caller
  kPublicBuild,    // anyone while a public channel points at the {id}; otherwise any caller
  kSignedIn,       // any caller with a valid token, whatever its role
  kPublisher,      // admins and publishers
  kOwnChannel,     // admins, and publishers whose allow-list holds the {channel}
  kAdmin,          // admins only
};

struct Access {
  Caller who = Caller::kAdmin;
  // Charged per client before anything else is judged, whatever the caller: credential attempts,
  // whether they succeed or not, and sign-in starts (each holds a place in a bounded store).
  std::optional<Budget> charge;
  // A first capture that opens the route to anyone: a path spelled like an open route's is open
  // whatever the method, though another route answers it.
  std::string_view openSegment;
};

// How --dump-routes prints it: "open", "open+credential", "public-channel", "admin", ...
std::string accessName(const Access& access);

}  // namespace quill
