#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hosts/blender/helper/answerPool.h"
#include "hosts/blender/helper/ownFolder.h"
#include "hosts/blender/helper/strandArrays.h"
#include "session/sceneSpace.h"

namespace corvelle {

class AlembicGuideCache;
class GroomExport;
class GroomSession;
class SimulationBake;
struct EvaluationResult;
struct ToolState;

/// One groom that a host works on: the engine's document, and what this process keeps around it.
/// Touched on the main thread only.
struct HelperSession {
    explicit HelperSession(std::int32_t sessionNumber)
        : number(sessionNumber),
          strandPool(poolBase("strands")),
          guidePool(poolBase("guides")),
          scalpPool(poolBase("scalp")) {}

    std::int32_t number;
    SceneSpace space;  ///< Z up and metres until the host tells
    /// The document; never null once the session stands in the table. Owned by this session alone:
    /// a shared pointer only so that the wire need not know the engine's headers.
    std::shared_ptr<GroomSession> groom;
    double seconds = 0.0;  ///< the current time
    AnswerPool strandPool, guidePool, scalpPool;
    StrandAnswerCache strandAnswer;                          ///< what lies in strandPool
    std::shared_ptr<const EvaluationResult> lastEvaluation;  ///< of the last `evaluate`; null: none
    std::uint64_t lastNodesEvaluated = 0, lastNodesIncremental = 0;  ///< counters at that time
    std::shared_ptr<ToolState> tools;               ///< this session's alone; null until first used
    std::shared_ptr<AlembicGuideCache> guideCache;  ///< plays the flat guides; null: none
    std::map<std::int32_t, std::shared_ptr<GroomExport>> exports;  ///< open ones, by number
    std::int32_t nextExport = 1;
    std::map<std::string, std::shared_ptr<SimulationBake>> simulationBakes;  ///< by Simulate node
    std::vector<std::string> inputErrors;  ///< what failed while it was opened
    bool mapsFolderMade = false;  ///< the session's own folder for maps is there, and clean
    std::string mapsDir;  ///< for painted maps, as the host gave it; empty: the session's own
    OwnFolder ownMaps;    ///< of its maps, once made

private:
    std::string poolBase(const char* kind) const { return "s" + std::to_string(number) + kind; }
};

/// What lives as long as the process. Destroyed at the end of the line loop, and with it every
/// session and every region of shared memory.
struct HelperState {
    std::map<std::int32_t, std::unique_ptr<HelperSession>> sessions;
    std::int32_t nextSession = 1;  ///< only ever grows
    bool shutdownRequested = false;
    std::string helperDirectory;  ///< of the program, UTF-8; presets are looked for here
};

}  // namespace corvelle
