// Before Qt's headers, whose `signals` and `slots` are macros.
#import <AppKit/AppKit.h>

#include "Quillvane/SystemEvents.h"

/// Listens for the screen being locked. A class of its own because only observers with a selector
/// can ask for immediate delivery: by default the system keeps distributed notifications back from
/// an application that is not the active one, which is what a locked screen's applications are.
@interface QuillvaneScreenLockObserver : NSObject
- (instancetype)initWithEvents:(SystemEvents*)events;
- (void)stop;
@end

@implementation QuillvaneScreenLockObserver {
    SystemEvents* _events;
}

- (instancetype)initWithEvents:(SystemEvents*)events {
    self = [super init];
    if (self) {
        _events = events;
        [NSDistributedNotificationCenter.defaultCenter
                   addObserver:self
                      selector:@selector(screenIsLocked:)
                          name:@"com.apple.screenIsLocked"
                        object:nil
            suspensionBehavior:NSNotificationSuspensionBehaviorDeliverImmediately];
    }
    return self;
}

- (void)screenIsLocked:(NSNotification*)notification {
    static_cast<void>(notification);
    emit _events->screenLocked();
}

- (void)stop {
    [NSDistributedNotificationCenter.defaultCenter removeObserver:self];
}

@end

namespace {

/// The path in a notification of an unmounted volume; nil when there is none.
NSString* volumePath(NSNotification* notification) {
    id url = notification.userInfo[NSWorkspaceVolumeURLKey];
    NSString* place = [url isKindOfClass:NSURL.class] ? static_cast<NSURL*>(url).path : nil;
    if (place != nil) return place;
    id path = notification.userInfo[@"NSDevicePath"];
    return [path isKindOfClass:NSString.class] ? path : nil;
}

/// The notifications of this system, all delivered on the main queue.
class MacSystemEvents : public SystemEvents {
public:
    MacSystemEvents() : screenLock_([[QuillvaneScreenLockObserver alloc] initWithEvents:this]) {
        NSNotificationCenter* workspace = NSWorkspace.sharedWorkspace.notificationCenter;
        powerOff_ = [workspace addObserverForName:NSWorkspaceWillPowerOffNotification
                                           object:nil
                                            queue:NSOperationQueue.mainQueue
                                       usingBlock:^(NSNotification*) {
                                         emit poweringOff();
                                       }];
        unmount_ = [workspace addObserverForName:NSWorkspaceDidUnmountNotification
                                          object:nil
                                           queue:NSOperationQueue.mainQueue
                                      usingBlock:^(NSNotification* notification) {
                                        if (NSString* path = volumePath(notification))
                                            emit volumeUnmounted(path.UTF8String);
                                      }];
    }

    ~MacSystemEvents() override {
        [screenLock_ stop];
        NSNotificationCenter* workspace = NSWorkspace.sharedWorkspace.notificationCenter;
        [workspace removeObserver:powerOff_];
        [workspace removeObserver:unmount_];
    }

    MacSystemEvents(const MacSystemEvents&) = delete;
    MacSystemEvents& operator=(const MacSystemEvents&) = delete;

private:
    QuillvaneScreenLockObserver* screenLock_;
    id<NSObject> powerOff_;
    id<NSObject> unmount_;
};

} // namespace

void SystemEvents::prepareEventLoop() {
    // Notifications come by the main run loop, which Qt takes for its event loop in programs with a
    // window only.
    qputenv("QT_EVENT_DISPATCHER_CORE_FOUNDATION", "1");
}

std::unique_ptr<SystemEvents> SystemEvents::ofThisSystem() {
    return std::make_unique<MacSystemEvents>();
}
