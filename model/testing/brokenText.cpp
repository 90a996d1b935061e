#include "model/testing/brokenText.h"

#include <algorithm>
#include <filesystem>

#include "model/fileReplace.h"
#include "model/utf8Path.h"

namespace corvelle {

std::string brokenText(const std::vector<std::string>& texts, const std::string& letters,
                       SplitMix& random) {
    const auto below = [&](std::size_t n) { return std::size_t(random.nextU64() % n); };
    std::string text = texts[below(texts.size())];
    for (std::size_t k = below(6); k > 0 && !text.empty(); --k) {
        const std::size_t at = below(text.size());
        switch (below(4)) {
            case 0:
                text.erase(at, 1 + below(5));
                break;
            case 1:
                text.insert(at, 1, letters[below(letters.size())]);
                break;
            case 2:
                text[at] = letters[below(letters.size())];
                break;
            default:
                text.insert(at, texts[below(texts.size())]);
                break;
        }
    }
    return text;
}

std::vector<std::string> textsInFolder(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(utf8Path(folder)))
        names.push_back(utf8Text(entry.path()));
    std::sort(names.begin(), names.end());
    std::vector<std::string> texts;
    for (const std::string& name : names) texts.push_back(readWholeFile(name));
    return texts;
}

}  // namespace corvelle
