# Included by CMake after the first project(): libraries whose own descriptions lead to all of this
# system's headers, or look for those of macOS. Their headers are found without any (toolchain.cmake).
foreach(library GTest::gmock GTest::gmock_main GTest::gtest GTest::gtest_main
        nlohmann_json::nlohmann_json WrapOpenGL::WrapOpenGL WrapVulkanHeaders::WrapVulkanHeaders)
    add_library(${library} INTERFACE IMPORTED GLOBAL)
endforeach()
