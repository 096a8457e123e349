#pragma once

#include <cstdint>
#include <onnxruntime_cxx_api.h>
#include <optional>
#include <span>
#include <vector>

namespace vocari {

// Describes CPU memory the program owns, for tensors that wrap its buffers.
const OrtMemoryInfo *cpuMemory();

// A float tensor over values, which must outlive it; writing to values changes the tensor.
Ort::Value floatTensor(std::span<float> values, std::span<const int64_t> shape);

// An integer input (int32 or int64, as the network declares) over storage of its own, created
// once and rewritten in place.
class IntegerInput
{
public:
    IntegerInput(ONNXTensorElementDataType type, std::vector<int64_t> shape);
    IntegerInput(const IntegerInput &) = delete;
    IntegerInput &operator=(const IntegerInput &) = delete;

    // Writes value into every element.
    void set(int64_t value);
    const Ort::Value &value() const { return m_value; }

private:
    ONNXTensorElementDataType m_type;
    std::vector<int32_t> m_int32;
    std::vector<int64_t> m_int64;
    Ort::Value m_value{nullptr};
};

// Element index of an integer tensor as a 64-bit value; none when value is not a tensor of a
// supported integer type or holds too few elements.
std::optional<int64_t> integerElement(const Ort::Value &value, size_t index = 0);

// The element count of a tensor's shape.
int64_t elementCount(std::span<const int64_t> shape);

} // namespace vocari
