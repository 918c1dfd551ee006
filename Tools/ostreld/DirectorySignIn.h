// Asks the directory whether a password is a user's.
#pragma once

#include <string>

#include "Platform/DirectoryTypes.h"

namespace ostrel {

/// A user whom the directory knows.
struct DirectoryAccount {
  std::string user;        ///< the first of the record's names
  std::string identifier;  ///< of the record (Platform/DirectoryMembership.h)
};

/// Checks the password on the search node and only checks it: `success`, and who it is; otherwise what the directory
/// answers. `recordNotFound` when the password is right but whose it is cannot be told for certain, because the
/// record's first name leads to another record. Any thread; blocks on disk, network and the hash, which is slow on
/// purpose.
DirectoryStatus checkPassword(const std::string& user, const std::string& password, DirectoryAccount& account);

}  // namespace ostrel
