// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/mount_fuse.h"

#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <system_error>

namespace app {
namespace {

MountTree& tree() {
    return *static_cast<MountTree*>(fuse_get_context()->private_data);
}

/* No exception may leave a callback; its error is the callback's result. */
template <class Call>
int answer(Call call) {
    try {
        return call();
    } catch (const std::system_error& failed) {
        return -failed.code().value();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

/* Nothing is cached anywhere: files come and go with the module, and every read and write is for
 * its handlers. */
void* start(fuse_conn_info* connection, fuse_config* config) {
    config->direct_io = 1;
    config->attr_timeout = config->entry_timeout = config->negative_timeout = 0;
    // A request is looked at before it is carried out, so it must lie in memory.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ);
    return fuse_get_context()->private_data;
}

int get_attributes(const char* path, struct stat* result, fuse_file_info*) {
    return answer([&] {
        *result = tree().attributes(path);
        return 0;
    });
}

int read_directory(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                   fuse_readdir_flags) {
    return answer([&] {
        auto names = tree().names_in(path);
        names.insert(names.begin(), {".", ".."});
        for (const std::string& name : names)
            if (fill(buffer, name.c_str(), nullptr, 0, fuse_fill_dir_flags{}) != 0)
                return -ENOMEM;
        return 0;
    });
}

int open_file(const char* path, fuse_file_info* info) {
    return answer([&] {
        info->fh = tree().open(path, info->flags);
        return 0;
    });
}

int read_file(const char*, char* buffer, std::size_t size, off_t offset, fuse_file_info* info) {
    return answer([&] {
        const std::string text =
            tree().read(info->fh, size, static_cast<std::uint64_t>(std::max<off_t>(offset, 0)));
        return static_cast<int>(text.copy(buffer, size));
    });
}

int write_file(const char*, const char* buffer, std::size_t size, off_t, fuse_file_info* info) {
    return answer(
        [&] { return static_cast<int>(tree().write(info->fh, std::string(buffer, size))); });
}

/* "echo ... >control" asks for this. The files have no length that could be cut. */
int truncate_file(const char* path, off_t, fuse_file_info*) {
    return answer([&] {
        const struct stat attributes = tree().attributes(path);
        return (attributes.st_mode & 0222) != 0 ? 0 : -EACCES;
    });
}

int release_file(const char*, fuse_file_info* info) {
    return answer([&] {
        tree().close(info->fh);
        return 0;
    });
}

fuse_operations make_operations() {
    fuse_operations operations{};
    operations.init = start;
    operations.getattr = get_attributes;
    operations.readdir = read_directory;
    operations.open = open_file;
    operations.read = read_file;
    operations.write = write_file;
    operations.truncate = truncate_file;
    operations.release = release_file;
    return operations;
}

}  // namespace

FusePointer make_fuse(MountTree& tree) {
    // The modes hold for everybody, as they do below /proc; only root may offer files to others
    // without being asked about it by /etc/fuse.conf.
    std::string options = "fsname=tarv-host,subtype=tarv-host,default_permissions";
    if (geteuid() == 0)
        options += ",allow_other";
    std::string program = "tarv-host";
    std::string flag = "-o";
    char* words[] = {program.data(), flag.data(), options.data()};
    fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(std::size(words)), words);
    const fuse_operations operations = make_operations();
    fuse* const handle = fuse_new(&arguments, &operations, sizeof operations, &tree);
    fuse_opt_free_args(&arguments);
    if (!handle)
        throw std::bad_alloc();
    return FusePointer(handle);
}

}  // namespace app
