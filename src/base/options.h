// The options record every action is handed: filled once by the command line
// (src/cli) and read everywhere below it.
#pragma once

#include <cstdint>

constexpr int KOR_MAX_WORDS = 20;   // the entry after the last word stays null
constexpr int KOR_PATH_SIZE = 100;

struct kor_options {
    int32_t r;
    int32_t dryrun;
    int32_t test;
    int32_t v;
    int32_t f;
    int32_t meta_major;
    int32_t meta_minor;
    int32_t meta_buildnumber;
    uint32_t velksize;
    int32_t rewrite;
    int32_t onlymeta;
    int32_t noactivate;
    int32_t stream;  // install: write parts as they arrive instead of holding the image
    int32_t product_set;
    int32_t platform_set;
    int32_t minver_set;
    int32_t iptos_set;
    int32_t iptos;
    int32_t retries;   // resumed downloads after a failure; 0 none
    uint32_t timeout;  // seconds for the whole download, retries included; 0 none
    const char* action;
    char cfg[KOR_PATH_SIZE];
    char cfgbak[KOR_PATH_SIZE];
    char lockfile[KOR_PATH_SIZE];
    char autosetfile[KOR_PATH_SIZE];
    char activesetfile[KOR_PATH_SIZE];
    char product[16];
    char platform[8];
    uint32_t minver_major;
    uint32_t minver_minor;
    uint32_t minver_buildnumber;
    char plugin[200];
    char cacert[KOR_PATH_SIZE];  // HTTPS: CA certificates trusted instead of the system's
    char cert[KOR_PATH_SIZE];    // HTTPS: client certificate
    char key[KOR_PATH_SIZE];     // HTTPS: its private key
    const char* words[KOR_MAX_WORDS];
    int32_t nwords;
    char keys[KOR_PATH_SIZE];  // -keys=: key directory or file instead of kor_key_dir
    int32_t downgrade;         // -downgrade: the minimum release file does not apply
};

constexpr const char* KOR_DEFAULT_CFG = "/dev/mmcblk0p3";
constexpr const char* KOR_DEFAULT_CFGBAK = "/dev/mmcblk0p4";
constexpr const char* KOR_DEFAULT_LOCKFILE = "/tmp/kor.lock";
constexpr const char* KOR_DEFAULT_AUTOSETFILE = "/tmp/kor.autoset";
constexpr const char* KOR_DEFAULT_ACTIVESETFILE = "/tmp/kor.activeset";
constexpr uint32_t KOR_DEFAULT_VELKSIZE = 0x4000000;

// The signing policy compiled into the build (src/base/policy.cpp).
extern const char kor_key_dir[];           // every *.pub in it is a trusted key
extern const char kor_min_release_file[];  // "M.N.B": older releases are refused
extern const bool kor_require_signature;   // no keys at all refuses every install

// Upper bounds of -retries= and -timeout= (a week: milliseconds of it still
// fit the 32-bit long libcurl takes on the device).
constexpr uint32_t KOR_MAX_RETRIES = 1000;
constexpr uint32_t KOR_MAX_TIMEOUT = 7 * 24 * 3600;
