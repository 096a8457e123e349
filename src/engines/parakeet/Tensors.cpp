#include "engines/parakeet/Tensors.h"

namespace vocari {

const OrtMemoryInfo *cpuMemory()
{
    static const Ort::MemoryInfo memory =
        Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeDefault);
    return memory;
}

Ort::Value floatTensor(std::span<float> values, std::span<const int64_t> shape)
{
    return Ort::Value::CreateTensor<float>(cpuMemory(), values.data(), values.size(), shape.data(),
                                           shape.size());
}

int64_t elementCount(std::span<const int64_t> shape)
{
    int64_t count = 1;
    for (const int64_t dim : shape)
        count *= dim;
    return count;
}

IntegerInput::IntegerInput(ONNXTensorElementDataType type, std::vector<int64_t> shape)
    : m_type(type)
{
    const auto count = size_t(elementCount(shape));
    if (type == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32) {
        m_int32.assign(count, 0);
        m_value = Ort::Value::CreateTensor<int32_t>(cpuMemory(), m_int32.data(), count,
                                                    shape.data(), shape.size());
    } else {
        m_type = ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64;
        m_int64.assign(count, 0);
        m_value = Ort::Value::CreateTensor<int64_t>(cpuMemory(), m_int64.data(), count,
                                                    shape.data(), shape.size());
    }
}

void IntegerInput::set(int64_t value)
{
    if (m_type == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32)
        std::fill(m_int32.begin(), m_int32.end(), int32_t(value));
    else
        std::fill(m_int64.begin(), m_int64.end(), value);
}

std::optional<int64_t> integerElement(const Ort::Value &value, size_t index)
{
    if (!value || !value.IsTensor())
        return std::nullopt;
    const auto info = value.GetTensorTypeAndShapeInfo();
    if (info.GetElementCount() <= index)
        return std::nullopt;
    switch (info.GetElementType()) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
        return value.GetTensorData<int32_t>()[index];
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
        return value.GetTensorData<int64_t>()[index];
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
        return value.GetTensorData<int16_t>()[index];
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
        return value.GetTensorData<uint16_t>()[index];
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
        return value.GetTensorData<int8_t>()[index];
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
        return value.GetTensorData<uint8_t>()[index];
    default:
        return std::nullopt;
    }
}

} // namespace vocari
