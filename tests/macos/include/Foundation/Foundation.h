#pragma once

// GNUstep's Foundation, and what the program needs of Apple's that it lacks, declared as Apple's
// reference has it (https://developer.apple.com/documentation/foundation/nsurl and
// .../foundation/nsurlresourcekey).

#include_next <Foundation/Foundation.h>

typedef NSString* NSURLResourceKey;

extern "C" {
extern NSURLResourceKey const NSURLIsPackageKey;
extern NSURLResourceKey const NSURLVolumeAvailableCapacityForImportantUsageKey;
extern NSURLResourceKey const NSURLVolumeNameKey;
}

@interface NSURL (FileSystemRepresentation)
+ (NSURL*)fileURLWithFileSystemRepresentation:(const char*)path
                                  isDirectory:(BOOL)isDir
                                relativeToURL:(NSURL*)baseURL;
@end
