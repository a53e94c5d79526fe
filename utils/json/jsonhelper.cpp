#include "utils/json/jsonhelper.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <rapidjson/filereadstream.h>
#include <rapidjson/filewritestream.h>
#include <rapidjson/writer.h>

#include <exception>
#include <memory>

#include "core/controller/corvanesystemlog.h"
#include "utils/json/jsonparse.h"

namespace {

constexpr size_t STREAM_BUFFER_SIZE = 65536;

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace

int ReadJsonFile(const std::string& path, rapidjson::Document& doc) {
    struct stat properties = {};
    if (stat(path.c_str(), &properties) != 0) {
        CORVANE_LOGE("Could not get file properties %s", path.c_str());
        return JSON_FILE_FAILED;
    }
    long size = static_cast<long>(properties.st_size);
    CORVANE_LOGI("File size: %ld", size);
    if (size > JSON_FILE_SIZE_LIMIT) {
        CORVANE_LOGE("File size: %ld exceeds limit", size);
        return JSON_FILE_TOO_LARGE;
    }
    try {
        ScopedFile file(fopen(path.c_str(), "rbe"));
        if (!file) {
            CORVANE_LOGE("Could not open file for reading");
            return JSON_FILE_FAILED;
        }
        std::unique_ptr<char[]> buffer(new char[STREAM_BUFFER_SIZE]);
        rapidjson::FileReadStream stream(file.get(), buffer.get(), STREAM_BUFFER_SIZE);
        // A read error (a directory, an I/O error) ends the stream early and shows as a parse
        // error, as does nesting deeper than JSON_MAX_DEPTH.
        if (!ParseJson(stream, doc)) {
            CORVANE_LOGE("Error parsing JSON file");
            return JSON_FILE_FAILED;
        }
        return JSON_FILE_OK;
    } catch (const std::exception& error) {
        CORVANE_LOGE("Error: %s", error.what());
        return JSON_FILE_EXCEPTION;
    } catch (...) {
        CORVANE_LOGE("Error: %s", "unknown exception");
        return JSON_FILE_EXCEPTION;
    }
}

int WriteJsonFile(const std::string& path, const rapidjson::Document& doc) {
    try {
        FILE* raw = fopen(path.c_str(), "wbe");
        if (raw == nullptr) {
            CORVANE_LOGE("Could not open file for writing");
            return JSON_FILE_FAILED;
        }
        ScopedFile file(raw);
        std::unique_ptr<char[]> buffer(new char[STREAM_BUFFER_SIZE]);
        rapidjson::FileWriteStream stream(file.get(), buffer.get(), STREAM_BUFFER_SIZE);
        rapidjson::Writer<rapidjson::FileWriteStream> writer(stream);
        if (!doc.Accept(writer)) {
            // Only values the writer cannot express (NaN or infinity) are refused.
            CORVANE_LOGE("Error: %s", "the document holds a value JSON cannot express");
            return JSON_FILE_FAILED;
        }
        stream.Flush();
        // Write errors (a full disk) only show when the buffers are flushed and the file closed.
        bool writeFailed = ferror(file.get()) != 0;
        int writeError = errno;
        if (fclose(file.release()) != 0 && !writeFailed) {
            writeFailed = true;
            writeError = errno;
        }
        if (writeFailed) {
            CORVANE_LOGE("Error: could not write %s: %s", path.c_str(), strerror(writeError));
            return JSON_FILE_FAILED;
        }
        return JSON_FILE_OK;
    } catch (const std::exception& error) {
        CORVANE_LOGE("Error: %s", error.what());
        return JSON_FILE_FAILED;
    } catch (...) {
        CORVANE_LOGE("Error: %s", "unknown exception");
        return JSON_FILE_FAILED;
    }
}
