#import <Foundation/Foundation.h>

#include <sys/syslimits.h>

#include <string>

#include "base/files/path_service.h"

#if !__has_feature(objc_arc)
#error "Built with ARC: the objects here are released by it."
#endif

namespace base::internal {

// The first Application Support folder of the user domain, tilde expanded.
bool PlatformAppDataDirectory(std::string* directory) {
  @autoreleasepool {
    NSArray<NSString*>* paths =
        NSSearchPathForDirectoriesInDomains(NSApplicationSupportDirectory, NSUserDomainMask, YES);
    if ([paths count] == 0) return false;
    NSString* first = [paths objectAtIndex:0];
    if ([first length] == 0) {
      directory->clear();
      return true;
    }
    // The checked form: fileSystemRepresentation raises an exception for a
    // name it cannot convert, and this program is built without them.
    char buffer[PATH_MAX];
    if (![first getFileSystemRepresentation:buffer maxLength:sizeof(buffer)]) return false;
    *directory = buffer;
    return true;
  }
}

}  // namespace base::internal
