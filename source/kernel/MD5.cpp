#include "kernel/MD5.h"

#include <openssl/evp.h>

#include <new>
#include <stdexcept>

namespace Kernel {
struct MD5_CTX::State {
    State() : digest(EVP_MD_CTX_new()) {
        if (!digest)
            throw std::bad_alloc();
    }
    State(State const &) = delete;
    State & operator=(State const &) = delete;
    ~State() { EVP_MD_CTX_free(digest); }

    EVP_MD_CTX * digest;
};

namespace {
void Check(int result) {
    if (result != 1)
        throw std::runtime_error("MD5 is not available");
}
}

MD5_CTX::MD5_CTX() : state(std::make_unique<State>()) {}

MD5_CTX::~MD5_CTX() = default;

void MD5_Init(MD5_CTX * context) { Check(EVP_DigestInit_ex(context->state->digest, EVP_md5(), nullptr)); }

void MD5_Update(MD5_CTX * context, void const * data, std::size_t size) {
    Check(EVP_DigestUpdate(context->state->digest, data, size));
}

void MD5_Final(unsigned char * digest, MD5_CTX * context) {
    Check(EVP_DigestFinal_ex(context->state->digest, digest, nullptr));
}
}
