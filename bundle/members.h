// Bundle members and their two names. Every member lookup in the engine goes
// through resolveMember, so a bundle may store a member under its primary
// name (what the code asks for) or its canonical name (what newer bundles
// store).
#pragma once

#include <string>

namespace le {

// The canonical name of a member, or the name itself when it has no second
// name.
std::string canonicalMemberName(const std::string& name);

// dir/name if that can be opened (the primary wins), else dir/canonical if
// that can, else dir/name so that the caller's refusal names the primary.
// Never throws for a missing file.
std::string resolveMember(const std::string& dir, const std::string& name);

}  // namespace le
