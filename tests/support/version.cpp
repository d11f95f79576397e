// Marks the test support library; the helpers live in the files beside it.
namespace kortest {
extern const char kSupportName[] = "kor test support";
}
