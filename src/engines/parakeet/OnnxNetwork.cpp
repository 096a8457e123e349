#include "engines/parakeet/OnnxNetwork.h"

#include "engines/parakeet/ParakeetErrors.h"
#include "engines/parakeet/ParakeetLog.h"

#include <QFile>
#include <QFileInfo>

namespace vocari {

namespace {

void forwardLog(void *, OrtLoggingLevel severity, const char *, const char *, const char *,
                const char *message)
{
    if (severity >= ORT_LOGGING_LEVEL_ERROR)
        qCWarning(lcParakeet).noquote() << "ONNX Runtime:" << message;
    else if (severity >= ORT_LOGGING_LEVEL_WARNING)
        qCDebug(lcParakeet).noquote() << "ONNX Runtime:" << message;
}

TensorInfo describe(std::string name, const Ort::TypeInfo &typeInfo)
{
    TensorInfo info;
    info.name = std::move(name);
    info.isTensor = typeInfo.GetONNXType() == ONNX_TYPE_TENSOR;
    if (info.isTensor) {
        const auto tensor = typeInfo.GetTensorTypeAndShapeInfo();
        info.type = tensor.GetElementType();
        info.shape = tensor.GetShape();
    }
    return info;
}

const TensorInfo *find(const std::vector<TensorInfo> &list, std::string_view name)
{
    for (const TensorInfo &info : list) {
        if (info.name == name)
            return &info;
    }
    return nullptr;
}

} // namespace

// ONNX Runtime's prebuilt library keeps a small allocation from creating its environment for
// the life of the process. Sanitizer builds would report it as a leak and fail every program
// that runs a network, so their leak checker is told to ignore that library (a hook the checker
// looks up by name; other builds never call it).
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libonnxruntime.so\n";
}

Ort::Env &onnxEnvironment()
{
    static Ort::Env environment(ORT_LOGGING_LEVEL_WARNING, "vocari", forwardLog, nullptr);
    return environment;
}

bool TensorInfo::isInteger() const
{
    return type == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32 ||
           type == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64;
}

std::optional<int64_t> TensorInfo::fixedDim(size_t index) const
{
    if (index >= shape.size() || shape[index] <= 0)
        return std::nullopt;
    return shape[index];
}

QString elementTypeName(ONNXTensorElementDataType type)
{
    switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
        return QStringLiteral("float");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
        return QStringLiteral("float16");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
        return QStringLiteral("double");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
        return QStringLiteral("int8");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
        return QStringLiteral("uint8");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
        return QStringLiteral("int16");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
        return QStringLiteral("int32");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
        return QStringLiteral("int64");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL:
        return QStringLiteral("bool");
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_STRING:
        return QStringLiteral("string");
    default:
        return QStringLiteral("type %1").arg(int(type));
    }
}

QString firstLine(const char *message)
{
    const QString text = QString::fromUtf8(message).trimmed();
    const qsizetype newline = text.indexOf(u'\n');
    return (newline < 0 ? text : text.left(newline)).trimmed();
}

OnnxNetwork::OnnxNetwork(QString fileName, Ort::Session session)
    : m_fileName(std::move(fileName)), m_session(std::move(session))
{
    Ort::AllocatorWithDefaultOptions allocator;
    for (size_t i = 0; i < m_session.GetInputCount(); ++i) {
        m_inputs.push_back(describe(m_session.GetInputNameAllocated(i, allocator).get(),
                                    m_session.GetInputTypeInfo(i)));
    }
    for (size_t i = 0; i < m_session.GetOutputCount(); ++i) {
        m_outputs.push_back(describe(m_session.GetOutputNameAllocated(i, allocator).get(),
                                     m_session.GetOutputTypeInfo(i)));
    }
}

std::unique_ptr<OnnxNetwork> OnnxNetwork::load(const QString &path, int threads)
{
    const QFileInfo file(path);
    const QString fileName = file.fileName();
    if (!file.isFile())
        throw ModelLoadError(QStringLiteral("%1 is missing from the model folder.").arg(fileName));

#if defined(__SANITIZE_THREAD__)
    // ONNX Runtime's thread pool synchronises inside the prebuilt library, out of
    // ThreadSanitizer's sight; a TSan build runs every network on the calling thread instead.
    threads = 1;
#endif
    try {
        Ort::SessionOptions options;
        options.SetIntraOpNumThreads(threads);
        options.SetInterOpNumThreads(1);
        options.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
        // Phrases come seconds apart: busy-waiting threads would only burn the CPU between them.
        options.AddConfigEntry("session.intra_op.allow_spinning", "0");
        Ort::Session session(onnxEnvironment(), QFile::encodeName(path).constData(), options);
        return std::unique_ptr<OnnxNetwork>(new OnnxNetwork(fileName, std::move(session)));
    } catch (const Ort::Exception &error) {
        throw ModelLoadError(QStringLiteral("%1 is not a network that can be loaded: %2")
                                 .arg(fileName, firstLine(error.what())));
    }
}

const TensorInfo *OnnxNetwork::input(std::string_view name) const
{
    return find(m_inputs, name);
}

const TensorInfo *OnnxNetwork::output(std::string_view name) const
{
    return find(m_outputs, name);
}

void OnnxNetwork::run(const Ort::RunOptions &options, std::span<const char *const> inputNames,
                      std::span<const OrtValue *const> inputs,
                      std::span<const char *const> outputNames, std::span<Ort::Value> outputs)
{
    // Ort::Value is a single OrtValue pointer, which is how the C++ API itself passes arrays of
    // them to the C API.
    static_assert(sizeof(Ort::Value) == sizeof(OrtValue *));
    Ort::Status status(Ort::GetApi().Run(m_session, options, inputNames.data(), inputs.data(),
                                         inputs.size(), outputNames.data(), outputNames.size(),
                                         reinterpret_cast<OrtValue **>(outputs.data())));
    if (!status.IsOK()) {
        throw InferenceError(QStringLiteral("%1 failed: %2")
                                 .arg(m_fileName, firstLine(status.GetErrorMessage().c_str())));
    }
}

} // namespace vocari
