// The product check on a release header whose body is fuzzer-made. Byte 0
// gives the model's length (0 to 15, as -product keeps it), the model
// follows, the rest is the body; the header is built around it so that the
// body ends where the heap block ends.
#include <cstdlib>
#include <cstring>
#include <string>

#include "korl/korl.h"

namespace {

// Written from the product-list rules, independently of korm.cpp.
int reference_match(const char* body, size_t length, const std::string& model)
{
    if (model.empty()) return 0;
    std::string text(body, strnlen(body, length));
    size_t at = text.find("products=");
    if (at == std::string::npos) return 0;
    size_t name = at + 9;
    for (size_t i = name; i < text.size(); ++i) {
        if (text[i] != ',' && text[i] != '\n') continue;
        if (text.compare(name, i - name, model) == 0) return 1;
        if (text[i] == '\n') return 0;
        name = i + 1;
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    size_t model_len = data[0] % 16u;
    if (size < 1 + model_len) return 0;
    std::string model(reinterpret_cast<const char*>(data + 1), model_len);
    model.resize(std::strlen(model.c_str()));
    const uint8_t* body = data + 1 + model_len;
    size_t body_len = size - 1 - model_len;

    size_t total = sizeof(velk_release_header) + body_len;
    auto* part = static_cast<uint8_t*>(std::malloc(total));
    velk_release_header h{};
    h.hdr.type_id = VELK_TYPE_RELEASE_HEADER;
    h.hdr.hdr_length = sizeof h;
    h.hdr.body_length = static_cast<uint32_t>(body_len);
    std::memcpy(part, &h, sizeof h);
    std::memcpy(part + sizeof h, body, body_len);
    int r = korl_match_model(reinterpret_cast<const velk_content_header*>(part), model.c_str());
    if (r != reference_match(reinterpret_cast<const char*>(body), body_len, model)) std::abort();
    std::free(part);
    return 0;
}
