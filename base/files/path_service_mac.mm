#import <Foundation/Foundation.h>

#include <string>

#include "base/files/path_service.h"

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
    *directory = [first fileSystemRepresentation];
    return true;
  }
}

}  // namespace base::internal
