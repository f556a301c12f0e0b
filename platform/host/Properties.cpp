// System properties on the host: values set in this process override the properties file named
// by $QRVCAM_PROPERTIES, which stands in for the device's build-time property files.
#include <limits.h>
#include <qrvcam/Properties.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace NSCam {
namespace Utils {
namespace Properties {
namespace {

using PropertyMap = std::map<std::string, std::string, std::less<>>;

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n\f\v";
    size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

// Lines without '=' and lines with an empty key are ignored; a later line wins over an earlier
// one, as with the device's property files.
PropertyMap parseFile(FILE* file) {
    PropertyMap values;
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file) >= 0) {
        std::string_view text = trim(line);
        if (text.empty() || text.front() == '#') continue;
        size_t equals = text.find('=');
        if (equals == std::string_view::npos) continue;
        std::string_view key = trim(text.substr(0, equals));
        if (key.empty()) continue;
        values[std::string(key)] = std::string(trim(text.substr(equals + 1)));
    }
    free(line);
    return values;
}

class PropertyStore {
public:
    // Never destroyed: threads that outlive main() may still read properties during exit.
    static PropertyStore& instance() {
        static PropertyStore* const sStore = new PropertyStore();
        return *sStore;
    }

    // Copies the value of `key` (at most `capacity` - 1 characters) into `out`, NUL-terminated,
    // and returns its length; returns -1, leaving `out` alone, when the key has no non-empty
    // value. Nothing is allocated.
    int copyValue(std::string_view key, char* out, size_t capacity) {
        loadFileOnce();
        {
            std::lock_guard<std::mutex> lock(mOverridesLock);
            auto it = mOverrides.find(key);
            // An override hides the file's value even when it is empty: set "" reads as unset.
            if (it != mOverrides.end()) return copyOut(it->second, out, capacity);
        }
        auto it = mFileValues.find(key);
        if (it != mFileValues.end()) return copyOut(it->second, out, capacity);
        return -1;
    }

    void set(std::string_view key, std::string_view value) {
        loadFileOnce();
        std::lock_guard<std::mutex> lock(mOverridesLock);
        auto it = mOverrides.find(key);
        if (it == mOverrides.end()) {
            mOverrides.emplace(std::string(key), std::string(value));
        } else {
            it->second.assign(value);
        }
    }

private:
    PropertyStore() = default;

    static int copyOut(std::string const& value, char* out, size_t capacity) {
        if (value.empty()) return -1;
        size_t length = value.size() < capacity - 1 ? value.size() : capacity - 1;
        memcpy(out, value.data(), length);
        out[length] = '\0';
        return static_cast<int>(length);
    }

    void loadFileOnce() {
        std::call_once(mFileOnce, [this] {
            char const* path = getenv("QRVCAM_PROPERTIES");
            if (path == nullptr || path[0] == '\0') return;
            FILE* file = fopen(path, "re");
            if (file == nullptr) return;
            mFileValues = parseFile(file);
            fclose(file);
        });
    }

    std::once_flag mFileOnce;
    // Written once inside mFileOnce, immutable afterwards: read without a lock.
    PropertyMap mFileValues;
    // Guards mOverrides. A plain mutex: reads are rare, and a reader-preferring rwlock could
    // starve property_set behind busy readers.
    std::mutex mOverridesLock;
    PropertyMap mOverrides;
};

// Decimal, or hexadecimal after "0x", with an optional sign; the whole text must be a number
// within [minimum, maximum]. Leading zeros are decimal, not octal.
bool parseInteger(char const* text, int64_t minimum, int64_t maximum, int64_t* out) {
    bool negative = false;
    if (*text == '+' || *text == '-') negative = *text++ == '-';
    unsigned base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
    }
    if (*text == '\0') return false;
    uint64_t magnitude = 0;
    for (; *text != '\0'; ++text) {
        unsigned digit;
        char c = *text;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return false;
        }
        if (magnitude > (UINT64_MAX - digit) / base) return false;
        magnitude = magnitude * base + digit;
    }
    // INT64_MIN's magnitude is one more than INT64_MAX's.
    constexpr uint64_t kMinMagnitude = static_cast<uint64_t>(INT64_MAX) + 1;
    int64_t value;
    if (negative) {
        if (magnitude > kMinMagnitude) return false;
        value = magnitude == kMinMagnitude ? INT64_MIN : -static_cast<int64_t>(magnitude);
    } else {
        if (magnitude > static_cast<uint64_t>(INT64_MAX)) return false;
        value = static_cast<int64_t>(magnitude);
    }
    if (value < minimum || value > maximum) return false;
    *out = value;
    return true;
}

int64_t getInteger(char const* key, int64_t minimum, int64_t maximum, int64_t defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    if (key == nullptr || property_get(key, value, "") <= 0) return defaultValue;
    int64_t result;
    return parseInteger(value, minimum, maximum, &result) ? result : defaultValue;
}

}  // namespace

int property_get(char const* key, char* value, char const* default_value) {
    int length = key != nullptr
                         ? PropertyStore::instance().copyValue(key, value, PROPERTY_VALUE_MAX)
                         : -1;
    if (length > 0) return length;
    // As on the device: an unset key without a default reads as the empty string.
    length = 0;
    if (default_value != nullptr) {
        length = static_cast<int>(strnlen(default_value, PROPERTY_VALUE_MAX - 1));
        memcpy(value, default_value, static_cast<size_t>(length));
    }
    value[length] = '\0';
    return length;
}

int8_t property_get_bool(char const* key, int8_t default_value) {
    char value[PROPERTY_VALUE_MAX];
    if (key == nullptr || property_get(key, value, "") <= 0) return default_value;
    for (char const* word : {"1", "y", "yes", "on", "true"}) {
        if (strcmp(value, word) == 0) return 1;
    }
    for (char const* word : {"0", "n", "no", "off", "false"}) {
        if (strcmp(value, word) == 0) return 0;
    }
    return default_value;
}

int32_t property_get_int32(char const* key, int32_t default_value) {
    return static_cast<int32_t>(getInteger(key, INT32_MIN, INT32_MAX, default_value));
}

int64_t property_get_int64(char const* key, int64_t default_value) {
    return getInteger(key, INT64_MIN, INT64_MAX, default_value);
}

int property_set(char const* key, char const* value) {
    if (key == nullptr || value == nullptr) return -1;
    PropertyStore::instance().set(key, value);
    return 0;
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
