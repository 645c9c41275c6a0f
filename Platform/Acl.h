// Access-control lists of items, through libacl.
//
// An item has an extended ACL when its access ACL holds more than the entries that its
// permission bits already say (owner, group, other). Symbolic links carry no ACL here.
#pragma once

#include <optional>
#include <string>

#include "Platform/Error.h"

namespace platform::acl {

// Whether the item has an extended access ACL, without following a final symbolic link;
// false when it has none, is a link, or cannot be read.
bool hasExtendedACL(const std::string& path);

// The text form (acl_to_text) of the item's extended access ACL, without following a
// final symbolic link. Absent when the item has none, is a link, or cannot be read.
std::optional<std::string> extendedACLText(const std::string& path);

// Sets the item's access ACL from its text form ("user::rw-,user:1:r--,group::r--,mask::r--,other::---").
// False (with the error set) when the text does not parse or the file system refuses it.
bool setACLText(const std::string& path, const std::string& text, Error* error = nullptr);

}  // namespace platform::acl
