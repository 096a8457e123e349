#pragma once

#include "engines/parakeet/ModelLayout.h"
#include "engines/parakeet/OnnxNetwork.h"
#include "engines/parakeet/Vocabulary.h"

#include <QString>
#include <array>
#include <memory>

namespace vocari {

// The networks and vocabulary of one model folder, loaded and checked against their layout.
// Used by one thread at a time (the runtime's worker).
struct ModelSet
{
    QString directory; // absolute and clean: the identity of the set
    ModelLayout layout;
    std::unique_ptr<OnnxNetwork> preprocessor;
    std::unique_ptr<OnnxNetwork> encoder;
    std::unique_ptr<OnnxNetwork> decoder; // fused decoder and joint in community layouts
    std::unique_ptr<OnnxNetwork> joint;   // split layout only
    Vocabulary vocabulary;
    int64_t blankId = 0;

    // Read from the networks' declarations:
    int64_t fixedSignalLength = 0; // samples the preprocessor insists on; 0 when dynamic
    std::array<int64_t, 3> stateShape{2, 1, 640};  // "h_in" / "input_states_1"
    std::array<int64_t, 3> state2Shape{2, 1, 640}; // "c_in" / "input_states_2"
};

// The split layout's blank token, also the first token fed to its prediction network.
inline constexpr int64_t kSplitBlankId = 8192;

// The absolute, clean form of a model folder path, which identifies a loaded set.
QString canonicalModelDirectory(const QString &directory);

// Loads the four networks concurrently while the vocabulary is parsed, then checks every
// network against its contract. Throws ModelLoadError with a one-line message naming the folder,
// file or tensor.
std::shared_ptr<ModelSet> loadModelSet(const QString &directory);

} // namespace vocari
