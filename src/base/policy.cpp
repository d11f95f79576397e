// The signing policy compiled into this build. A product build sets it with
// CMake (KOR_KEY_DIR, KOR_MIN_RELEASE_FILE, KOR_REQUIRE_SIGNATURE); nothing
// at run time can change it, so deleting or editing a file cannot switch
// verification off where the build requires it.
#include "base/options.h"

const char kor_key_dir[] = KOR_KEY_DIR;
const char kor_min_release_file[] = KOR_MIN_RELEASE_FILE;
const bool kor_require_signature = KOR_REQUIRE_SIGNATURE != 0;
