#include "FileManager.h"

#include "Platform.h"
#include "ProcessRunner.h"

void FileManager::show(const std::filesystem::path& folder, BackgroundTasks& tasks) {
    tasks.start([folder] { ProcessRunner::run(Platform::tools().open, {folder.string()}); },
                [](const std::exception_ptr&) {}); // best effort
}
