// Test plugin: once downloaded, writes the IP type of service of the
// transfer's socket (still open in libcurl's connection cache) as decimal
// text to $KOR_TEST_TOS.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include <curl/curl.h>

#include "install/install.h"

extern "C" int kor_install_hook_post_dl(install_ctx* ctx, hostconfig*, int, const char*)
{
    const char* path = std::getenv("KOR_TEST_TOS");
    curl_socket_t s = CURL_SOCKET_BAD;
    int tos = -1;
    socklen_t len = sizeof tos;
    FILE* f = nullptr;
    if (path != nullptr && ctx != nullptr && ctx->curl != nullptr &&
        curl_easy_getinfo(static_cast<CURL*>(ctx->curl), CURLINFO_ACTIVESOCKET, &s) == CURLE_OK &&
        s != CURL_SOCKET_BAD && getsockopt(s, IPPROTO_IP, IP_TOS, &tos, &len) == 0 &&
        (f = std::fopen(path, "w")) != nullptr) {
        std::fprintf(f, "%d", tos);
        std::fclose(f);
    }
    return 0;
}
