#include <binder/Stability.h>
#include <log/log.h>

namespace android {
namespace internal {

void Stability::markCompilationUnit(IBinder* binder) {
    if (binder != nullptr) binder->mStability.store(kLocalStability);
}

void Stability::markVintf(IBinder* binder) {
    if (binder != nullptr) binder->mStability.store(Level::VINTF);
}

void Stability::markVndk(IBinder* binder) {
    if (binder != nullptr) binder->mStability.store(Level::VENDOR);
}

void Stability::debugLogStability(const std::string& tag, const sp<IBinder>& binder) {
    __android_log_print(ANDROID_LOG_INFO, "Stability", "%s: stability %d", tag.c_str(),
                        get(binder.get()));
}

bool Stability::requiresVintfDeclaration(const sp<IBinder>& binder) {
    return get(binder.get()) == Level::VINTF;
}

int32_t Stability::get(IBinder* binder) {
    return binder != nullptr ? binder->mStability.load() : Level::UNDECLARED;
}

void Stability::tryMarkCompilationUnit(IBinder* binder) {
    if (binder == nullptr) return;
    int32_t expected = Level::UNDECLARED;
    binder->mStability.compare_exchange_strong(expected, kLocalStability);
}

void Stability::setRemote(IBinder* binder, int32_t level) {
    if (binder != nullptr) binder->mStability.store(level);
}

}  // namespace internal
}  // namespace android
