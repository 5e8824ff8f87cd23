// libcurl and OpenSSL, loaded at the first call that needs them rather than when the program
// starts. An agent runs in every session for as long as it lasts and most never talk to the
// server, while Debian's libcurl brings some twenty libraries with it (GnuTLS, Kerberos, LDAP,
// SSH and others): about 5 MB of resident pages per agent, and their constructors' work at
// every start.
//
// Each function the client calls is defined here under its own name and hands the call to the
// library's, looked up once; the rest of the client includes the libraries' headers and calls
// them as usual, and the compiler holds each definition to the header's declaration. The
// libraries are opened by soname from the system's folders only (the loader ignores the
// environment in a set-user-id run).
#include <curl/curl.h>
#include <dlfcn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstdarg>
#include <string>

#include "networking/NetworkingException.h"

namespace vesk {
namespace {

constexpr const char* kCurl = "libcurl.so.4";
constexpr const char* kSSL = "libssl.so.3";
constexpr const char* kCrypto = "libcrypto.so.3";

// The library, opened once. A library that cannot be had fails the exchange that needed it,
// not the program.
void* openLibrary(const char* library) {
  void* handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = ::dlerror();
    throw VESKNetworkingException("Networking Error", std::string("Unable to load ") + library +
                                                          ": " + (why != nullptr ? why : "?"));
  }
  return handle;
}

void* handleOf(const char* library) {
  static void* const curl = openLibrary(kCurl);  // opens OpenSSL's libraries too
  static void* const ssl = openLibrary(kSSL);
  static void* const crypto = openLibrary(kCrypto);
  return library == kCurl ? curl : library == kSSL ? ssl : crypto;
}

// The library's own definition of `name`.
template <typename Function>
Function resolve(const char* library, const char* name) {
  void* found = ::dlsym(handleOf(library), name);
  if (found == nullptr)
    throw VESKNetworkingException("Networking Error",
                                  std::string("Unable to find ") + name + " in " + library);
  return reinterpret_cast<Function>(found);
}

}  // namespace
}  // namespace vesk

#define VESK_FORWARD(library, result, name, parameters, arguments)             \
  extern "C" result name parameters {                                          \
    static const auto real = vesk::resolve<decltype(&::name)>(library, #name); \
    return real arguments;                                                     \
  }

// Options and information of the variadic calls travel as one argument whose type the
// option's range tells, as libcurl reads them itself.
namespace {

template <typename Result, typename Handle, typename Option>
Result forwardOption(Result (*real)(Handle*, Option, ...), Handle* handle, Option option,
                     va_list arguments) {
  if (option < CURLOPTTYPE_OBJECTPOINT) return real(handle, option, va_arg(arguments, long));
  if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB)
    return real(handle, option, va_arg(arguments, curl_off_t));
  return real(handle, option, va_arg(arguments, void*));  // data, functions, blobs
}

}  // namespace

#define VESK_FORWARD_OPTION(result, name, handle_type, option_type)                \
  extern "C" result name(handle_type* handle, option_type option, ...) {           \
    static const auto real = vesk::resolve<decltype(&::name)>(vesk::kCurl, #name); \
    va_list arguments;                                                             \
    va_start(arguments, option);                                                   \
    const result answer = forwardOption(real, handle, option, arguments);          \
    va_end(arguments);                                                             \
    return answer;                                                                 \
  }

VESK_FORWARD_OPTION(CURLcode, curl_easy_setopt, CURL, CURLoption)
VESK_FORWARD_OPTION(CURLMcode, curl_multi_setopt, CURLM, CURLMoption)

// Every piece of information is answered through a pointer.
extern "C" CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
  static const auto real = vesk::resolve<decltype(&::curl_easy_getinfo)>(vesk::kCurl, __func__);
  va_list arguments;
  va_start(arguments, info);
  const CURLcode result = real(curl, info, va_arg(arguments, void*));
  va_end(arguments);
  return result;
}

using vesk::kCrypto;
using vesk::kCurl;
using vesk::kSSL;

VESK_FORWARD(kCurl, CURLcode, curl_global_init, (long flags), (flags))
VESK_FORWARD(kCurl, CURL*, curl_easy_init, (void), ())
VESK_FORWARD(kCurl, void, curl_easy_cleanup, (CURL * curl), (curl))
VESK_FORWARD(kCurl, const char*, curl_easy_strerror, (CURLcode code), (code))
VESK_FORWARD(kCurl, void, curl_free, (void* p), (p))
VESK_FORWARD(kCurl, CURLM*, curl_multi_init, (void), ())
VESK_FORWARD(kCurl, CURLMcode, curl_multi_cleanup, (CURLM * multi), (multi))
VESK_FORWARD(kCurl, CURLMcode, curl_multi_add_handle, (CURLM * multi, CURL* curl), (multi, curl))
VESK_FORWARD(kCurl, CURLMcode, curl_multi_remove_handle, (CURLM * multi, CURL* curl), (multi, curl))
VESK_FORWARD(kCurl, CURLMsg*, curl_multi_info_read, (CURLM * multi, int* queued), (multi, queued))
VESK_FORWARD(kCurl, CURLMcode, curl_multi_socket_action,
             (CURLM * multi, curl_socket_t socket, int mask, int* running),
             (multi, socket, mask, running))
VESK_FORWARD(kCurl, struct curl_slist*, curl_slist_append,
             (struct curl_slist * list, const char* text), (list, text))
VESK_FORWARD(kCurl, void, curl_slist_free_all, (struct curl_slist * list), (list))
VESK_FORWARD(kCurl, CURLU*, curl_url, (void), ())
VESK_FORWARD(kCurl, void, curl_url_cleanup, (CURLU * url), (url))
VESK_FORWARD(kCurl, CURLUcode, curl_url_get,
             (CURLU * url, CURLUPart what, char** part, unsigned int flags),
             (url, what, part, flags))
VESK_FORWARD(kCurl, CURLUcode, curl_url_set,
             (CURLU * url, CURLUPart what, const char* part, unsigned int flags),
             (url, what, part, flags))

VESK_FORWARD(kSSL, long, SSL_CTX_ctrl, (SSL_CTX * ctx, int command, long number, void* pointer),
             (ctx, command, number, pointer))
VESK_FORWARD(kSSL, void*, SSL_CTX_get_ex_data, (const SSL_CTX* ctx, int index), (ctx, index))
VESK_FORWARD(kSSL, int, SSL_CTX_set_ex_data, (SSL_CTX * ctx, int index, void* data),
             (ctx, index, data))
VESK_FORWARD(kSSL, void, SSL_CTX_set_cert_verify_callback,
             (SSL_CTX * ctx, int (*callback)(X509_STORE_CTX*, void*), void* argument),
             (ctx, callback, argument))
VESK_FORWARD(kSSL, void, SSL_CTX_set_client_cert_cb,
             (SSL_CTX * ctx, int (*callback)(SSL*, X509**, EVP_PKEY**)), (ctx, callback))
VESK_FORWARD(kSSL, SSL_CTX*, SSL_get_SSL_CTX, (const SSL* ssl), (ssl))

VESK_FORWARD(kCrypto, int, BIO_free, (BIO * bio), (bio))
VESK_FORWARD(kCrypto, BIO*, BIO_new_file, (const char* path, const char* mode), (path, mode))
VESK_FORWARD(kCrypto, int, CRYPTO_get_ex_new_index,
             (int kind, long number, void* pointer, CRYPTO_EX_new* made, CRYPTO_EX_dup* copied,
              CRYPTO_EX_free* freed),
             (kind, number, pointer, made, copied, freed))
VESK_FORWARD(kCrypto, void, ERR_clear_error, (void), ())
VESK_FORWARD(kCrypto, void, EVP_PKEY_free, (EVP_PKEY * key), (key))
VESK_FORWARD(kCrypto, void, OPENSSL_sk_pop_free, (OPENSSL_STACK * stack, OPENSSL_sk_freefunc free),
             (stack, free))
VESK_FORWARD(kCrypto, EVP_PKEY*, PEM_read_bio_PrivateKey,
             (BIO * bio, EVP_PKEY** key, pem_password_cb* password, void* data),
             (bio, key, password, data))
VESK_FORWARD(kCrypto, X509*, PEM_read_bio_X509,
             (BIO * bio, X509** certificate, pem_password_cb* password, void* data),
             (bio, certificate, password, data))
VESK_FORWARD(kCrypto, void, PKCS12_free, (PKCS12 * p12), (p12))
VESK_FORWARD(kCrypto, int, PKCS12_parse,
             (PKCS12 * p12, const char* password, EVP_PKEY** key, X509** certificate,
              STACK_OF(X509) * *chain),
             (p12, password, key, certificate, chain))
VESK_FORWARD(kCrypto, PKCS12*, d2i_PKCS12_bio, (BIO * bio, PKCS12** p12), (bio, p12))
VESK_FORWARD(kCrypto, X509*, X509_STORE_CTX_get0_cert, (const X509_STORE_CTX* ctx), (ctx))
VESK_FORWARD(kCrypto, int, X509_STORE_CTX_get_error, (const X509_STORE_CTX* ctx), (ctx))
VESK_FORWARD(kCrypto, void, X509_STORE_CTX_set_error, (X509_STORE_CTX * ctx, int error),
             (ctx, error))
VESK_FORWARD(kCrypto, int, X509_check_host,
             (X509 * certificate, const char* name, size_t length, unsigned int flags,
              char** matched),
             (certificate, name, length, flags, matched))
VESK_FORWARD(kCrypto, int, X509_check_ip_asc,
             (X509 * certificate, const char* address, unsigned int flags),
             (certificate, address, flags))
VESK_FORWARD(kCrypto, int, X509_check_private_key, (const X509* certificate, const EVP_PKEY* key),
             (certificate, key))
VESK_FORWARD(kCrypto, void, X509_free, (X509 * certificate), (certificate))
VESK_FORWARD(kCrypto, int, X509_verify_cert, (X509_STORE_CTX * ctx), (ctx))
VESK_FORWARD(kCrypto, const char*, X509_verify_cert_error_string, (long error), (error))
