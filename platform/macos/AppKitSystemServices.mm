#include "platform/macos/AppKitSystemServices.h"

#import <AppKit/AppKit.h>
#import <ServiceManagement/ServiceManagement.h>

#include "platform/macos/NSStrings.h"
#include "platform/macos/RunLoopMainLoop.h"

// Lets the application chooser pick application bundles only (and walk into folders).
@interface BMApplicationsOnly : NSObject <NSOpenSavePanelDelegate>
@end

@implementation BMApplicationsOnly
- (BOOL)panel:(id)sender shouldEnableURL:(NSURL*)url {
    (void)sender;
    NSNumber* isPackage = nil;
    NSNumber* isDirectory = nil;
    [url getResourceValue:&isPackage forKey:NSURLIsPackageKey error:nil];
    [url getResourceValue:&isDirectory forKey:NSURLIsDirectoryKey error:nil];
    if ([url.pathExtension caseInsensitiveCompare:@"app"] == NSOrderedSame) return YES;
    return isDirectory.boolValue && !isPackage.boolValue;
}
@end

namespace brightmix {

namespace {

std::optional<std::string> optionalText(NSString* value) {
    if (value.length == 0) return std::nullopt;
    return stdString(value);
}

NSURL* fileURL(std::string_view path) {
    return [NSURL fileURLWithPath:nsString(path)];
}

// Runs a panel's completion on the main thread with its chosen path, or none.
void finishChoice(NSOpenPanel* panel, NSModalResponse response,
                  const FolderAccess::Completion& completion) {
    std::optional<std::string> chosen;
    if (response == NSModalResponseOK && panel.URL) chosen = stdString(panel.URL.path);
    runCatching("a folder choice", [&] {
        if (completion) completion(chosen);
    });
}

} // namespace

// --- Launch at login -----------------------------------------------------------------------

LoginItem::Status MainAppLoginItem::status() const {
    switch (SMAppService.mainAppService.status) {
    case SMAppServiceStatusNotRegistered:
        return Status::notRegistered;
    case SMAppServiceStatusEnabled:
        return Status::enabled;
    case SMAppServiceStatusRequiresApproval:
        return Status::requiresApproval;
    case SMAppServiceStatusNotFound:
        return Status::notFound;
    }
    return Status::notFound;
}

void MainAppLoginItem::registerItem() {
    NSError* error = nil;
    if (![SMAppService.mainAppService registerAndReturnError:&error])
        throw Error(stdString(error.localizedDescription));
}

void MainAppLoginItem::unregisterItem() {
    NSError* error = nil;
    if (![SMAppService.mainAppService unregisterAndReturnError:&error])
        throw Error(stdString(error.localizedDescription));
}

void MainAppLoginItem::openSystemSettingsLoginItems() {
    [SMAppService openSystemSettingsLoginItems];
}

// --- Folders -------------------------------------------------------------------------------

struct OpenPanelFolders::Impl {
    // The security-scoped URLs that bookmarks resolved to or the open panel handed out, by
    // path: access is started on them and bookmarks are made from them.
    std::map<std::string, NSURL*> resolved;
    NSURL* urlFor(const std::string& folder) const;
    std::map<std::string, int> accessCount;
    BMApplicationsOnly* applicationsOnly = [[BMApplicationsOnly alloc] init];
};

OpenPanelFolders::OpenPanelFolders() : impl_(std::make_unique<Impl>()) {}

OpenPanelFolders::~OpenPanelFolders() {
    for (auto& [path, count] : impl_->accessCount) {
        const auto found = impl_->resolved.find(path);
        if (found == impl_->resolved.end()) continue;
        for (int i = 0; i < count; ++i)
            [found->second stopAccessingSecurityScopedResource];
    }
}

std::string OpenPanelFolders::desktopFolder() const {
    NSURL* desktop = [NSFileManager.defaultManager URLsForDirectory:NSDesktopDirectory
                                                          inDomains:NSUserDomainMask]
                         .firstObject;
    return desktop ? stdString(desktop.path) : stdString(NSHomeDirectory());
}

void OpenPanelFolders::chooseFolder(const FolderChoice& choice, Completion completion) {
    [NSApp activate];
    NSOpenPanel* panel = [NSOpenPanel openPanel];
    panel.canChooseFiles = NO;
    panel.canChooseDirectories = YES;
    panel.allowsMultipleSelection = NO;
    panel.canCreateDirectories = YES;
    panel.title = nsString(choice.title);
    panel.message = nsString(choice.message);
    panel.prompt = nsString(choice.prompt);
    if (!choice.startFolder.empty()) panel.directoryURL = fileURL(choice.startFolder);
    Impl* impl = impl_.get();
    [panel beginWithCompletionHandler:^(NSModalResponse response) {
      // The sandbox grants the folder through the URL the panel hands out: access can be
      // started on that object (or on one resolved from its bookmark), never on a URL rebuilt
      // from its path. Keep it for startAccessing and createBookmark.
      if (response == NSModalResponseOK && panel.URL.path)
          impl->resolved[stdString(panel.URL.path)] = panel.URL;
      finishChoice(panel, response, completion);
    }];
}

NSURL* OpenPanelFolders::Impl::urlFor(const std::string& folder) const {
    const auto found = resolved.find(folder);
    return found != resolved.end() ? found->second : fileURL(folder);
}

std::optional<PropertyList::Data> OpenPanelFolders::createBookmark(const std::string& folder) {
    NSError* error = nil;
    NSData* data =
        [impl_->urlFor(folder) bookmarkDataWithOptions:NSURLBookmarkCreationWithSecurityScope
                        includingResourceValuesForKeys:nil
                                         relativeToURL:nil
                                                 error:&error];
    if (!data) return std::nullopt;
    const auto* bytes = static_cast<const std::uint8_t*>(data.bytes);
    return PropertyList::Data(bytes, bytes + data.length);
}

std::optional<FolderAccess::ResolvedBookmark>
OpenPanelFolders::resolveBookmark(const PropertyList::Data& bookmark) {
    NSData* data = [NSData dataWithBytes:bookmark.data() length:bookmark.size()];
    BOOL isStale = NO;
    NSError* error = nil;
    NSURL* url = [NSURL URLByResolvingBookmarkData:data
                                           options:NSURLBookmarkResolutionWithSecurityScope |
                                                   NSURLBookmarkResolutionWithoutUI
                                     relativeToURL:nil
                               bookmarkDataIsStale:&isStale
                                             error:&error];
    if (!url || !url.path) return std::nullopt;
    const std::string path = stdString(url.path);
    impl_->resolved[path] = url;
    return ResolvedBookmark{path, isStale == YES};
}

bool OpenPanelFolders::startAccessing(const std::string& folder) {
    NSURL* url = impl_->urlFor(folder);
    if (![url startAccessingSecurityScopedResource]) return false;
    impl_->resolved[folder] = url;
    ++impl_->accessCount[folder];
    return true;
}

void OpenPanelFolders::stopAccessing(const std::string& folder) {
    const auto count = impl_->accessCount.find(folder);
    const auto found = impl_->resolved.find(folder);
    if (count == impl_->accessCount.end() || found == impl_->resolved.end()) return;
    [found->second stopAccessingSecurityScopedResource];
    if (--count->second == 0) impl_->accessCount.erase(count);
}

void OpenPanelFolders::chooseApplication(const std::string& message, const std::string& startFolder,
                                         Completion completion) {
    [NSApp activate];
    NSOpenPanel* panel = [NSOpenPanel openPanel];
    panel.canChooseFiles = YES;
    panel.canChooseDirectories = NO;
    panel.allowsMultipleSelection = NO;
    panel.treatsFilePackagesAsDirectories = NO;
    panel.message = nsString(message);
    panel.delegate = impl_->applicationsOnly;
    if (!startFolder.empty()) panel.directoryURL = fileURL(startFolder);
    [panel beginWithCompletionHandler:^(NSModalResponse response) {
      finishChoice(panel, response, completion);
    }];
}

// --- Workspace -----------------------------------------------------------------------------

std::optional<Workspace::RunningApplication>
AppKitWorkspace::runningApplication(std::int32_t pid) const {
    NSRunningApplication* app = [NSRunningApplication runningApplicationWithProcessIdentifier:pid];
    if (!app) return std::nullopt;
    RunningApplication result;
    NSURL* location = app.bundleURL ? app.bundleURL : app.executableURL;
    if (location.path) result.bundlePath = standardizedPath(stdString(location.path));
    result.bundleIdentifier = optionalText(app.bundleIdentifier);
    return result;
}

std::optional<std::string> AppKitWorkspace::bundleIdentifier(std::string_view bundlePath) const {
    return optionalText([NSBundle bundleWithPath:nsString(bundlePath)].bundleIdentifier);
}

std::string AppKitWorkspace::displayName(std::string_view path) const {
    NSString* name = [NSFileManager.defaultManager displayNameAtPath:nsString(path)];
    if (name.length > 0) return stdString(name);
    const std::string standard = standardizedPath(path);
    return standard.substr(standard.find_last_of('/') + 1);
}

std::string AppKitWorkspace::ownBundlePath() const {
    return stdString(NSBundle.mainBundle.bundlePath);
}

WorkspaceIcon AppKitWorkspace::icon(std::string_view path) const {
    NSImage* image = [[NSWorkspace sharedWorkspace] iconForFile:nsString(path)];
    WorkspaceIcon result;
    result.name = std::string(path);
    if (image) {
        // The renderer finds the image by its path; the object is kept for whoever holds it.
        result.image = std::shared_ptr<const void>(CFBridgingRetain(image),
                                                   [](const void* object) { CFRelease(object); });
    }
    return result;
}

std::optional<std::string> AppKitWorkspace::bundleName(std::string_view bundlePath) const {
    NSBundle* bundle = [NSBundle bundleWithPath:nsString(bundlePath)];
    if (!bundle) return std::nullopt;
    for (NSString* key in @[ @"CFBundleDisplayName", @"CFBundleName" ]) {
        id value = [bundle objectForInfoDictionaryKey:key];
        if ([value isKindOfClass:[NSString class]] && [value length] > 0) return stdString(value);
    }
    return std::nullopt;
}

std::optional<std::string> AppKitWorkspace::frontmostApplicationBundleID() const {
    return optionalText(NSWorkspace.sharedWorkspace.frontmostApplication.bundleIdentifier);
}

bool AppKitWorkspace::openURL(std::string_view url) {
    NSURL* target = [NSURL URLWithString:nsString(url)];
    return target && [NSWorkspace.sharedWorkspace openURL:target];
}

bool AppKitWorkspace::openApplication(std::string_view path) {
    NSURL* url = fileURL(path);
    if (![NSFileManager.defaultManager fileExistsAtPath:url.path]) return false;
    [NSWorkspace.sharedWorkspace openApplicationAtURL:url
                                        configuration:[NSWorkspaceOpenConfiguration configuration]
                                    completionHandler:nil];
    return true;
}

bool AppKitWorkspace::revealFile(std::string_view path) {
    NSURL* url = fileURL(path);
    if (![NSFileManager.defaultManager fileExistsAtPath:url.path]) return false;
    [NSWorkspace.sharedWorkspace activateFileViewerSelectingURLs:@[ url ]];
    return true;
}

bool AppKitWorkspace::relaunch() {
    NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
    configuration.createsNewApplicationInstance = YES;
    [NSWorkspace.sharedWorkspace openApplicationAtURL:NSBundle.mainBundle.bundleURL
                                        configuration:configuration
                                    completionHandler:nil];
    return true;
}

void AppKitWorkspace::terminate() {
    [NSApp terminate:nil];
}

} // namespace brightmix
