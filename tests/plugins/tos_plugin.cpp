// Test plugin: when the download has ended, reads the IP type of service of
// the transfer's socket (still open in libcurl's connection cache) and writes
// it as decimal text to $KOR_TEST_TOS_FILE.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include <curl/curl.h>

#include "install/install.h"

extern "C" int kor_install_hook_post_dl(install_ctx* ctx, hostconfig*, int, const char*)
{
    const char* path = std::getenv("KOR_TEST_TOS_FILE");
    if (path == nullptr || ctx == nullptr || ctx->curl == nullptr) return 0;
    curl_socket_t s = CURL_SOCKET_BAD;
    if (curl_easy_getinfo(static_cast<CURL*>(ctx->curl), CURLINFO_ACTIVESOCKET, &s) != CURLE_OK ||
        s == CURL_SOCKET_BAD) {
        return 0;
    }
    int tos = -1;
    socklen_t len = sizeof tos;
    if (getsockopt(s, IPPROTO_IP, IP_TOS, &tos, &len) != 0) return 0;
    FILE* f = std::fopen(path, "w");
    if (f == nullptr) return 0;
    std::fprintf(f, "%d", tos);
    std::fclose(f);
    return 0;
}
