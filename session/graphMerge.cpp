#include "session/graphMerge.h"

#include <map>
#include <optional>
#include <set>

#include <nlohmann/json.hpp>

#include "graph/graphJson.h"

namespace corvelle {
namespace {

using Json = nlohmann::json;

Json readText(const std::string& text) {
    return blankGraphText(text) ? Json::object() : Json::parse(text);
}

/// By what an entry of a list is known; the whole entry where nothing names it.
std::string keyOf(const Json& entry) {
    if (entry.is_object()) {
        for (const char* key : {"name", "param"})
            if (const auto found = entry.find(key); found != entry.end() && found->is_string())
                return std::string(key) + ":" + found->get<std::string>();
        if (entry.contains("to"))
            return "to:" + Json::array({entry["to"], entry.value("input", Json())}).dump();
    }
    return "=" + entry.dump();
}

bool isNamedList(const Json& json) {
    if (!json.is_array()) return false;
    for (const Json& entry : json)
        if (!entry.is_object()) return false;
    return true;
}

const Json* find(const Json& object, const std::string& key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

bool same(const Json* a, const Json* b) { return a && b ? *a == *b : a == b; }

std::optional<Json> merge(const Json* base, const Json* ours, const Json* theirs);

Json mergeObjects(const Json& base, const Json& ours, const Json& theirs) {
    std::set<std::string> keys;
    for (const Json* object : {&ours, &theirs})
        for (const auto& [key, value] : object->items()) keys.insert(key);
    Json out = Json::object();
    for (const std::string& key : keys)
        if (auto value = merge(find(base, key), find(ours, key), find(theirs, key)))
            out[key] = std::move(*value);
    return out;
}

/// Entries in the order of `ours`, those that only `theirs` has behind them.
Json mergeLists(const Json& base, const Json& ours, const Json& theirs) {
    using ByKey = std::map<std::string, const Json*>;
    const auto byKey = [](const Json& list) {
        ByKey entries;
        for (const Json& entry : list) entries.emplace(keyOf(entry), &entry);
        return entries;
    };
    const ByKey inBase = byKey(base), inOurs = byKey(ours), inTheirs = byKey(theirs);
    const auto at = [](const ByKey& entries, const std::string& key) {
        const auto found = entries.find(key);
        return found == entries.end() ? nullptr : found->second;
    };
    Json out = Json::array();
    for (const Json& entry : ours) {
        const std::string key = keyOf(entry);
        if (auto value = merge(at(inBase, key), &entry, at(inTheirs, key)))
            out.push_back(std::move(*value));
    }
    for (const Json& entry : theirs) {
        const std::string key = keyOf(entry);
        if (at(inOurs, key)) continue;
        if (auto value = merge(at(inBase, key), nullptr, &entry)) out.push_back(std::move(*value));
    }
    return out;
}

/// Null pointers and no value: not there.
std::optional<Json> merge(const Json* base, const Json* ours, const Json* theirs) {
    const auto copy = [](const Json* json) {
        return json ? std::optional<Json>(*json) : std::nullopt;
    };
    if (same(ours, base) || !theirs) return base || !ours ? copy(theirs) : copy(ours);
    if (same(theirs, base) || !ours || same(ours, theirs)) return copy(ours);
    const Json nothing = ours->is_array() ? Json::array() : Json::object();
    const Json& from = base ? *base : nothing;
    if (ours->is_object() && theirs->is_object() && from.is_object())
        return mergeObjects(from, *ours, *theirs);
    if (isNamedList(*ours) && isNamedList(*theirs) && isNamedList(from))
        return mergeLists(from, *ours, *theirs);
    return copy(ours);
}

void dropLooseEnds(Json& graph) {
    const auto nodes = graph.find("nodes");
    if (nodes == graph.end() || !nodes->is_array()) return;
    std::set<std::string> names;
    for (const Json& node : *nodes)
        if (node.is_object() && node.contains("name") && node["name"].is_string())
            names.insert(node["name"].get<std::string>());
    const auto loose = [&](const Json& end) {
        for (const char* key : {"from", "to"})
            if (const Json* name = find(end, key);
                name && name->is_string() && !names.contains(name->get<std::string>()))
                return true;
        return false;
    };
    const auto prune = [&](Json& ends) {  // a list, or an object by param
        if (!ends.is_object() && !isNamedList(ends)) return;
        for (auto end = ends.begin(); end != ends.end();)
            if (loose(*end))
                end = ends.erase(end);
            else
                ++end;
    };
    if (const auto connections = graph.find("connections"); connections != graph.end())
        prune(*connections);
    for (Json& node : *nodes) {
        const auto inputs = node.find("paramInputs");
        if (inputs == node.end()) continue;
        prune(*inputs);
        if (inputs->empty()) node.erase("paramInputs");
    }
}

}  // namespace

std::string mergeGraphs(const std::string& base, const std::string& ours,
                        const std::string& theirs) {
    const Json from = readText(base), mine = readText(ours), other = readText(theirs);
    std::optional<Json> merged = merge(&from, &mine, &other);
    if (!merged) return {};
    dropLooseEnds(*merged);
    return merged->dump();
}

}  // namespace corvelle
