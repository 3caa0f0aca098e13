// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/qversion.h"

#include "platform/memory.h"
#include "platform/string.h"
#include "tarv/tarv-ptr.h"

namespace {

constexpr char compiler[] = "(3.4)";
constexpr char kernel[] = "(2.6.9-34.ELsmp)";
constexpr char build_date[] = "(Mar 19 2006)";
constexpr char build_time[] = "07:54:49";

bool is_blank(const char* text) {
    if (!text)
        return true;
    while (kisspace(static_cast<u8>(*text)))
        text++;
    return *text == '\0';
}

const char* text_or(const char* text, const char* fallback) {
    return is_blank(text) ? fallback : text;
}

const char* find(const char* text, char wanted) {
    while (*text && *text != wanted)
        text++;
    return *text ? text : nullptr;
}

/* Cuts the blanks off both ends of the `length` characters at `text`. */
void trim(char* text, size_t length) {
    size_t begin = 0;
    while (begin < length && kisspace(static_cast<u8>(text[begin])))
        begin++;
    while (length > begin && kisspace(static_cast<u8>(text[length - 1])))
        length--;
    for (size_t i = begin; i < length; i++)
        text[i - begin] = text[i];
    text[length - begin] = '\0';
}

/* The value of a source-control keyword, which stands between ':' and '$': at most `size` - 1
 * characters of it, blanks trimmed. False when `keyword` does not have that shape. */
bool take_keyword_value(const char* keyword, char* value, size_t size) {
    const char* from = find(keyword, ':');
    const char* to = from ? find(from, '$') : nullptr;
    if (!to)
        return false;
    size_t length = 0;
    for (from++; from < to && length < size - 1; from++)
        value[length++] = *from;
    trim(value, length);
    return true;
}

/* A formatted text in memory of its own; null when there is none. The caller's to kfree. */
template <class... Args>
char* format_text(const char* format, Args... args) {
    const size_t size = static_cast<size_t>(ksnprintf(nullptr, 0, format, args...)) + 1;
    char* text = static_cast<char*>(kmalloc(size, GFP_KERNEL));
    if (text)
        ksnprintf(text, size, format, args...);
    return text;
}

char* make_banner(const char* name, const char* version, const char* tag) {
    char tag_value[30];
    const bool has_tag =
        take_keyword_value(text_or(tag, ""), tag_value, sizeof tag_value) && tag_value[0];
    const char* tag_field = has_tag ? tag_value : "NoTag";

    char version_value[10];
    const char* version_field = text_or(version, "0");
    if (take_keyword_value(version_field, version_value, sizeof version_value))
        version_field = version_value[0] ? version_value : "0";

    return format_text("%s %s %s %s %s %s %s\n", text_or(name, "Unknown"), version_field, tag_field,
                       text_or(compiler, "(Unknown Compiler)"), text_or(kernel, "(Unknown Kernel)"),
                       build_date, build_time);
}

bool create_file(const char* path) {
    proc_dir_entry* entry = create_proc_entry(path, 0, nullptr);
    if (!entry)
        return false;
    entry->data = nullptr;
    entry->owner = this_module();
    entry->read_proc = version_read_proc;
    return true;
}

/* Whether the directories stand already, or could be made, shows when the file is tried again. */
void create_directories(const char* name) {
    const kptr<char> path(format_text("quorvane/%s", name));
    if (!path || proc_mkdir(path.get(), nullptr))
        return;
    proc_mkdir("quorvane", nullptr);
    proc_mkdir(path.get(), nullptr);
}

}  // namespace

constinit char* module_banner = nullptr;

int module_version_init(const char* name, const char* version, const char* tag) {
    module_banner = make_banner(name, version, tag);
    if (!module_banner)
        return -1;
    const kptr<char> path(format_text("quorvane/%s/version", name));
    bool made = path && create_file(path.get());
    if (path && !made) {
        create_directories(name);
        made = create_file(path.get());
    }
    if (made)
        return 0;
    kfree(module_banner);
    module_banner = nullptr;
    return -1;
}

int module_version_exit(const char* name) {
    if (!name)
        return -1;
    // A usual name needs no memory, so that an unload can always take its file away.
    char short_path[64];
    const size_t length =
        static_cast<size_t>(ksnprintf(short_path, sizeof short_path, "quorvane/%s/version", name));
    const bool is_short = length < sizeof short_path;
    const kptr<char> long_path(is_short ? nullptr : format_text("quorvane/%s/version", name));
    if (!is_short && !long_path)
        return -1;
    // Without a line there is no file. When the file is gone, so are the readers of the line.
    if (module_banner)
        remove_proc_entry(is_short ? short_path : long_path.get(), nullptr);
    kfree(module_banner);
    module_banner = nullptr;
    return 0;
}

int version_read_proc(char* page, char** start, off_t off, int count, int* eof, void*) {
    long length = ksnprintf(page, PAGE_SIZE, "%s", module_banner ? module_banner : "Error\n");
    // Of a longer line the page holds the beginning and the NUL.
    if (length >= static_cast<long>(PAGE_SIZE))
        length = PAGE_SIZE - 1;
    const long left = length - off;
    if (left <= count)
        *eof = 1;
    // What lies behind the page has no address; nothing is read there.
    *start = page + (off < static_cast<long>(PAGE_SIZE) ? off : static_cast<long>(PAGE_SIZE));
    if (left < 0)
        return 0;
    return left < count ? static_cast<int>(left) : count;
}
