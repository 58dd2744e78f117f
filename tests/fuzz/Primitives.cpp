// The single values: an input says how many are read and of which types, and then gives the bytes.
#include <utility>
#include <variant>
#include <vector>

#include "Walk.h"
#include "parcel/Double.h"
#include "parcel/Int32.h"
#include "parcel/Int64.h"
#include "parcel/String.h"
#include "parcel/StringArray.h"

namespace {

using namespace orvel::fuzz;          // NOLINT(google-build-using-namespace)
using namespace orvel::service_apis;  // NOLINT(google-build-using-namespace)
using Value = std::variant<int, long long, double, std::string, std::vector<std::string>>;

Value readOne(vesk_buffer* buffer, unsigned type) {
  long long integer = 5;
  double number = 5;
  switch (type % 5) {
    case 0:
      return Int32::read(buffer);
    case 1:
      require(Int64::read(buffer, &integer), "a failed read stores 0");
      return integer;
    case 2:
      require(Double::read(buffer, &number), "a failed read stores 0");
      return number;
    case 3:
      return String::read(buffer);
    default:
      return StringArray::read(buffer);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  std::vector<unsigned> types(choices.byte() % 5);
  for (unsigned& type : types) type = choices.byte();
  const auto read = [&types](vesk_buffer* buffer) {
    std::vector<Value> values;
    values.reserve(types.size());
    for (const unsigned type : types) values.push_back(readOne(buffer, type));
    return values;
  };
  checkReader(choices.rest(), read, [](Walk& wire, const std::vector<Value>& values) {
    for (const Value& value : values) std::visit([&wire](const auto& known) { wire.expect(known); }, value);
  });
  return 0;
}
