#include "sso/sso_state.h"

namespace quill::sso {

SsoState& stateOf(Context& ctx) {
  std::call_once(ctx.ssoOnce, [&ctx] {
    if (!ctx.sso) ctx.sso = std::make_shared<SsoState>();
  });
  return *ctx.sso;
}

}  // namespace quill::sso
