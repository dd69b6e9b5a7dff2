#include "Quillvane/FileManager.h"

#include "Quillvane/Platform.h"
#include "Quillvane/ProcessRunner.h"

void FileManager::reveal(const std::filesystem::path& item, BackgroundTasks& tasks) {
    tasks.start(
        [item] {
            ProcessRunner::run(Platform::tools().open, {"-R", item.string()});
        },
        [](const std::exception_ptr&) {}); // best effort
}
