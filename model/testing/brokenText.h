#pragma once

#include <string>
#include <vector>

#include "model/hash.h"

namespace corvelle {

/// One of the texts with a few accidents: characters lost, put in or exchanged, or another of the
/// texts in the middle. `letters` is what characters are taken from.
std::string brokenText(const std::vector<std::string>& texts, const std::string& letters,
                       SplitMix& random);

/// The files of a folder, in order of their names.
std::vector<std::string> textsInFolder(const std::string& folder);

}  // namespace corvelle
