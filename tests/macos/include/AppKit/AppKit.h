#pragma once

// GNUstep's AppKit, and what the program needs of Apple's that it lacks, declared as Apple's
// reference has it (https://developer.apple.com/documentation/appkit/nsworkspace).

#include <Foundation/Foundation.h>

#include_next <AppKit/AppKit.h>

extern "C" NSString* const NSWorkspaceVolumeURLKey;
