// Before the other headers, which must not change what the system's own mean.
#import <Foundation/Foundation.h>

#include "Package.h"
#include "Quillvane/Platform.h"

namespace {

namespace fs = std::filesystem;

/// What the system keeps about the item under `key`; nil when it has no such thing.
id resourceValue(const fs::path& path, NSURLResourceKey key) {
    NSURL* url = [NSURL fileURLWithFileSystemRepresentation:path.c_str()
                                                isDirectory:NO
                                              relativeToURL:nil];
    id value = nil;
    return [url getResourceValue:&value forKey:key error:nil] ? value : nil;
}

} // namespace

std::int64_t Platform::availableCapacity(const fs::path& path) {
    @autoreleasepool {
        NSNumber* bytes = resourceValue(path, NSURLVolumeAvailableCapacityForImportantUsageKey);
        return bytes.longLongValue;
    }
}

std::optional<std::string> Platform::volumeName(const fs::path& path) {
    @autoreleasepool {
        NSString* name = resourceValue(path, NSURLVolumeNameKey);
        if (name == nil) return std::nullopt;
        return std::string(name.UTF8String);
    }
}

bool isPackage(const fs::path& folder) {
    @autoreleasepool {
        NSNumber* answer = resourceValue(folder, NSURLIsPackageKey);
        return answer.boolValue;
    }
}
