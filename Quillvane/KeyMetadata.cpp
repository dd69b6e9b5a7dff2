#include "KeyMetadata.h"

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;

/// An integer in any spelling of a whole number ("1", "1.0", "1e3") that fits.
std::optional<std::int64_t> integer(const Json& record, const char* name) {
    const auto member = record.find(name);
    if (member == record.end()) return std::nullopt;
    if (member->is_number_float()) {
        constexpr double limit = 9223372036854775808.0; // 2^63
        const double number = member->get<double>();
        const bool fits = number > -limit && number < limit;
        if (!fits || static_cast<double>(static_cast<std::int64_t>(number)) != number)
            return std::nullopt;
        return static_cast<std::int64_t>(number);
    }
    if (!member->is_number_integer()) return std::nullopt;
    const auto number = member->get<std::int64_t>();
    if (member->is_number_unsigned() && number < 0) return std::nullopt;
    return number;
}

std::optional<std::string> string(const Json& record, const char* name) {
    const auto member = record.find(name);
    if (member == record.end() || !member->is_string()) return std::nullopt;
    return member->get<std::string>();
}

} // namespace

std::string KeyMetadata::encode() const {
    const nlohmann::ordered_json record{{"version", version},
                                        {"kdf", kdf},
                                        {"iterations", iterations},
                                        {"salt", salt},
                                        {"wrapped", wrapped}};
    return record.dump();
}

std::optional<KeyMetadata> KeyMetadata::decode(std::string_view json) {
    const Json record = Json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (!record.is_object()) return std::nullopt;
    const auto version = integer(record, "version");
    const auto kdf = string(record, "kdf");
    const auto iterations = integer(record, "iterations");
    const auto salt = string(record, "salt");
    const auto wrapped = string(record, "wrapped");
    if (!version || !kdf || !iterations || !salt || !wrapped) return std::nullopt;
    return KeyMetadata{.version = *version,
                       .kdf = *kdf,
                       .iterations = *iterations,
                       .salt = *salt,
                       .wrapped = *wrapped};
}
