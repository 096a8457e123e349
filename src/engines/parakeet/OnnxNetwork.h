#pragma once

#include <QString>
#include <memory>
#include <onnxruntime_cxx_api.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vocari {

// The process-wide ONNX Runtime environment; its log goes to the "vocari.parakeet" category.
Ort::Env &onnxEnvironment();

// What a network declares about one of its inputs or outputs.
struct TensorInfo
{
    std::string name;
    bool isTensor = false;
    ONNXTensorElementDataType type = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
    std::vector<int64_t> shape; // -1 (or 0 for a symbolic name) marks a dynamic dimension

    bool isFloat() const { return type == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
    bool isInteger() const;
    // The size of dimension index when the network fixes it, else none.
    std::optional<int64_t> fixedDim(size_t index) const;
};

// A short name of an element type for messages ("float", "int64", …).
QString elementTypeName(ONNXTensorElementDataType type);

// One loaded ONNX network: its session and what it declares, under the name of its file.
class OnnxNetwork
{
public:
    // Loads path with the given number of intra-op threads (whose pool sleeps between runs
    // rather than spinning). Throws ModelLoadError naming the file when it is missing or not a
    // network ONNX Runtime can run.
    static std::unique_ptr<OnnxNetwork> load(const QString &path, int threads);

    const QString &fileName() const { return m_fileName; }
    const std::vector<TensorInfo> &inputs() const { return m_inputs; }
    const std::vector<TensorInfo> &outputs() const { return m_outputs; }
    const TensorInfo *input(std::string_view name) const;
    const TensorInfo *output(std::string_view name) const;

    // Runs the network. The inputs are borrowed; outputs that are empty values on entry are
    // allocated by ONNX Runtime. Throws InferenceError naming the file when the run fails.
    void run(const Ort::RunOptions &options, std::span<const char *const> inputNames,
             std::span<const OrtValue *const> inputs, std::span<const char *const> outputNames,
             std::span<Ort::Value> outputs);

private:
    OnnxNetwork(QString fileName, Ort::Session session);

    QString m_fileName;
    Ort::Session m_session;
    std::vector<TensorInfo> m_inputs;
    std::vector<TensorInfo> m_outputs;
};

// The first line of an ONNX Runtime message, for one-line errors.
QString firstLine(const char *message);

} // namespace vocari
