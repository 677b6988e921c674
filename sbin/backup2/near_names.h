/// What somebody meant who named an entry that a backup does not have.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace backup2_admin {

/// At most one byte is wrong, missing or too much, or two neighbours are swapped.
bool IsOneSlip(std::string_view a, std::string_view b);

/// For each of `wrong` (paths below the root) up to three names of the local listing `index`, the
/// nearest first: in another case, in another folder, with a folder before it that was left out, or
/// with one slip of the finger. Throws as EachListedEntry.
std::vector<std::vector<std::string>> NearNames(const std::string& index,
                                                const std::vector<std::string>& wrong);
/// These as words for a line: "is it a, or b?". "" when there is none.
std::string AskNear(const std::vector<std::string>& near);

}  // namespace backup2_admin
