#include "ui/tray/CountIcons.h"

#include "platform/XmlText.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace almanor {

namespace {

constexpr std::string_view namePrefix = "com.vostrel.Almanor-count-";

// Names and folders are made of the text, which is digits, '-' and '!'; anything else is spelled
// as its code so that a name never holds a path separator.
std::string fileSafe(std::string_view text) {
    std::string out;
    for (char c : text) {
        if ((c >= '0' && c <= '9') || c == '-') {
            out += c;
        } else if (c == '!') {
            out += "today";
        } else {
            out += 'x';
            out += std::to_string(static_cast<unsigned char>(c));
        }
    }
    return out;
}

[[noreturn]] void fail(const std::filesystem::path& file, const char* what) {
    throw std::filesystem::filesystem_error(what, file,
                                            std::error_code(errno, std::generic_category()));
}

// Written aside and renamed into place: a panel never reads half an icon.
void writeAtomically(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::path temporary = file;
    temporary += ".tmp";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail(temporary, "cannot write the count icon");
    }
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            int saved = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            errno = saved;
            fail(temporary, "cannot write the count icon");
        }
        done += std::size_t(n);
    }
    ::close(fd);
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        int saved = errno;
        ::unlink(temporary.c_str());
        errno = saved;
        fail(file, "cannot write the count icon");
    }
}

} // namespace

CountIcons::CountIcons(std::filesystem::path folder) : folder_(std::move(folder)) {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
}

CountIcons::~CountIcons() {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
}

CountIcons::Icon CountIcons::iconFor(std::string_view text) {
    std::string safe = fileSafe(text);
    Icon icon{std::string(namePrefix) + safe, folder_ / safe};
    auto apps = icon.themePath / "hicolor" / "scalable" / "apps";
    auto file = apps / (icon.name + ".svg");
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) {
        std::filesystem::create_directories(apps);
        writeAtomically(file, svg(text));
    }
    return icon;
}

std::string CountIcons::svg(std::string_view text) {
    // Bold digits are about 0.6 em wide; the square leaves 56 of its 64 units for them.
    const double length = double(std::max<std::size_t>(text.size(), 1));
    const int size = std::clamp(int(56.0 / (0.6 * length)), 12, 46);
    // The digits' middle on the square's middle: their height is about 0.72 em.
    const int baseline = 32 + int(std::lround(0.36 * size));
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"64\" height=\"64\" "
           "viewBox=\"0 0 64 64\">\n"
           "  <rect x=\"2\" y=\"2\" width=\"60\" height=\"60\" rx=\"12\" ry=\"12\" "
           "fill=\"#e01b24\"/>\n"
           "  <text x=\"32\" y=\"" +
           std::to_string(baseline) +
           "\" font-family=\"sans-serif\" font-weight=\"bold\" font-size=\"" +
           std::to_string(size) + "\" fill=\"#ffffff\" text-anchor=\"middle\">" + xmlEscaped(text) +
           "</text>\n</svg>\n";
}

} // namespace almanor
