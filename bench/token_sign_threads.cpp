// The plain way to sign with a PKCS#11 token from many threads: the module
// loaded, one login, and N threads each with a session of its own calling
// C_SignInit and C_Sign (RSA PKCS#1 v1.5 over a SHA-256 DigestInfo, as the
// agent signs) back to back for a fixed time. scripts/bench.sh sets the
// agent's rate with as many clients beside it; prints rate=N signatures=N
// errors=N.
//   token_sign_threads MODULE TOKEN-LABEL KEY-LABEL PIN-FILE THREADS SECONDS
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// DER DigestInfo prefix for SHA-256, then the 32-byte digest.
const unsigned char SHA256_INFO[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

[[noreturn]] void Die(const std::string& what, CK_RV rv = CKR_OK)
{
    std::fprintf(stderr, "token_sign_threads: %s (CK_RV 0x%lx)\n", what.c_str(), static_cast<unsigned long>(rv));
    std::exit(1);
}

std::string Padded(const std::string& text, size_t width)
{
    std::string padded = text.substr(0, width);
    padded.resize(width, ' ');
    return padded;
}

CK_SLOT_ID FindSlot(CK_FUNCTION_LIST_PTR p11, const std::string& label)
{
    CK_ULONG count = 0;
    p11->C_GetSlotList(CK_TRUE, nullptr, &count);
    std::vector<CK_SLOT_ID> slots(count);
    if (p11->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) Die("C_GetSlotList");
    for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        if (p11->C_GetTokenInfo(slot, &info) == CKR_OK &&
            std::memcmp(info.label, Padded(label, sizeof info.label).data(), sizeof info.label) == 0)
            return slot;
    }
    Die("no token labelled " + label);
}

CK_OBJECT_HANDLE FindKey(CK_FUNCTION_LIST_PTR p11, CK_SESSION_HANDLE session, const std::string& label)
{
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &privateKey, sizeof privateKey},
                             {CKA_LABEL, const_cast<char*>(label.data()), label.size()}};
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
    CK_ULONG found = 0;
    if (p11->C_FindObjectsInit(session, wanted, 2) != CKR_OK || p11->C_FindObjects(session, &key, 1, &found) != CKR_OK ||
        p11->C_FindObjectsFinal(session) != CKR_OK || found != 1)
        Die("no private key labelled " + label);
    return key;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) Die("usage: token_sign_threads MODULE TOKEN-LABEL KEY-LABEL PIN-FILE THREADS SECONDS");
    void* module = ::dlopen(argv[1], RTLD_NOW);
    if (!module) Die(std::string("cannot load ") + argv[1]);
    auto getList = reinterpret_cast<CK_RV (*)(CK_FUNCTION_LIST_PTR_PTR)>(::dlsym(module, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR p11 = nullptr;
    if (!getList || getList(&p11) != CKR_OK) Die("no C_GetFunctionList");
    CK_C_INITIALIZE_ARGS init{};
    init.flags = CKF_OS_LOCKING_OK;
    if (CK_RV rv = p11->C_Initialize(&init); rv != CKR_OK) Die("C_Initialize", rv);
    const CK_SLOT_ID slot = FindSlot(p11, argv[2]);
    std::string pin;
    std::ifstream(argv[4]) >> pin;
    CK_SESSION_HANDLE first = CK_INVALID_HANDLE;
    if (CK_RV rv = p11->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &first); rv != CKR_OK)
        Die("C_OpenSession", rv);
    if (CK_RV rv = p11->C_Login(first, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), pin.size());
        rv != CKR_OK)
        Die("C_Login", rv);
    const std::string keyLabel = argv[3];
    const int threads = std::atoi(argv[5]);
    const auto duration = std::chrono::duration<double>(std::atof(argv[6]));

    std::atomic<bool> stop{false};
    std::atomic<long> signatures{0}, errors{0};
    std::vector<std::thread> signers;
    for (int t = 0; t < threads; ++t)
        signers.emplace_back([&, t] {
            CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
            if (p11->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) {
                ++errors;
                return;
            }
            const CK_OBJECT_HANDLE key = FindKey(p11, session, keyLabel);
            unsigned char input[sizeof SHA256_INFO + 32];
            std::memcpy(input, SHA256_INFO, sizeof SHA256_INFO);
            unsigned char signature[1024];
            CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
            for (long n = 0; !stop; ++n) {
                std::memset(input + sizeof SHA256_INFO, static_cast<int>(t + n), 32);
                CK_ULONG length = sizeof signature;
                if (p11->C_SignInit(session, &mechanism, key) == CKR_OK &&
                    p11->C_Sign(session, input, sizeof input, signature, &length) == CKR_OK)
                    ++signatures;
                else
                    ++errors;
            }
            p11->C_CloseSession(session);
        });
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(duration);
    stop = true;
    for (auto& signer : signers) signer.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    p11->C_Logout(first);
    p11->C_CloseSession(first);
    p11->C_Finalize(nullptr);
    std::printf("rate=%.0f signatures=%ld errors=%ld\n", static_cast<double>(signatures) / seconds, signatures.load(),
                errors.load());
    return errors == 0 ? 0 : 1;
}
