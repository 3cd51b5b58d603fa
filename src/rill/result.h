#pragma once
// This library's failures are the bottom floor's; its code names them unqualified.

#include "base/result.h"

namespace quill::rill {

using base::Failure;
using base::Result;

}  // namespace quill::rill
