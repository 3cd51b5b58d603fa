#include "app/access.h"

namespace quill {

namespace {

std::string_view callerName(Caller who) {
  switch (who) {
    case Caller::kAnyone:
      return "open";
    case Caller::kPublicChannel:
      return "public-channel";
    case Caller::kPublicBuild:
      return "public-build";
    case Caller::kSignedIn:
      return "signed-in";
    case Caller::kPublisher:
      return "publisher";
    case Caller::kOwnChannel:
      return "own-channel";
    case Caller::kAdmin:
      return "admin";
  }
  return "?";
}

std::string_view budgetName(Budget budget) {
  switch (budget) {
    case Budget::Credential:
      return "credential";
    case Budget::Anonymous:
      return "anonymous";
    case Budget::SignInStart:
      return "sign-in";
  }
  return "?";
}

}  // namespace

std::string accessName(const Access& access) {
  std::string name(callerName(access.who));
  if (access.charge) name.append("+").append(budgetName(*access.charge));
  if (!access.openSegment.empty()) name.append(",open:").append(access.openSegment);
  return name;
}

}  // namespace quill
