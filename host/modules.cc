// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Loading modules, and the names under which they find each other.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>

#include "host/internal.h"
#include "host/services.h"
#include "platform/module.h"

struct module {
    const module_info_t* info;
    unsigned users = 0;  ///< of its names and files
    bool going = false;  ///< nobody may begin to use it
};
using LoadedModule = struct module;

namespace host {
namespace {

struct Name {
    std::string name;
    LoadedModule* owner;
    const void* data;
    unsigned users = 0;
};

std::mutex names_mutex;  // guards all below
std::vector<Name> names;
std::vector<std::unique_ptr<LoadedModule>> loaded;

auto find_name(const std::string& name) {
    return std::ranges::find(names, name, &Name::name);
}

void forget_all() {
    const std::lock_guard guard(names_mutex);
    names.clear();
    loaded.clear();
}

void report_names(std::vector<std::string>& lines) {
    for (const std::string& name : inter_module_names())
        lines.push_back("module: the name " + name + " is registered");
}

[[noreturn]] void refuse(const std::string& parameter, const char* why) {
    throw std::invalid_argument("module parameter \"" + parameter + "\": " + why);
}

unsigned long read_variable(const module_param_t& param) {
    return param.type == module_param_byte ? *static_cast<u8*>(param.variable)
                                           : *static_cast<unsigned long*>(param.variable);
}

void write_variable(const module_param_t& param, unsigned long value) {
    if (param.type == module_param_byte)
        *static_cast<u8*>(param.variable) = static_cast<u8>(value);
    else
        *static_cast<unsigned long*>(param.variable) = value;
}

const module_param_t& find_param(const module_info_t& info, const std::string& parameter) {
    const std::string name = parameter.substr(0, parameter.find('='));
    for (u32 i = 0; i < info.param_count; ++i)
        if (name == info.params[i].name)
            return info.params[i];
    refuse(parameter, "the module has none of that name");
}

unsigned long parse_value(const module_param_t& param, const std::string& parameter) {
    const std::size_t equals = parameter.find('=');
    if (equals == std::string::npos || equals + 1 == parameter.size())
        refuse(parameter, "it has no value");
    const char* const text = parameter.c_str() + equals + 1;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 0);
    if (*text < '0' || *text > '9' || *end != '\0')
        refuse(parameter, "the value is no number");
    if (errno == ERANGE ||
        (param.type == module_param_byte && value > std::numeric_limits<u8>::max()))
        refuse(parameter, "the value is out of range");
    return value;
}

/* A module that is loaded afresh has its variables as they were built, also where its storage is
 * that of an earlier load. */
void restore_defaults(const module_info_t& info) {
    static std::map<const void*, unsigned long> defaults;
    for (u32 i = 0; i < info.param_count; ++i) {
        const module_param_t& param = info.params[i];
        write_variable(param,
                       defaults.try_emplace(param.variable, read_variable(param)).first->second);
    }
}

void apply_parameters(const module_info_t& info, const std::vector<std::string>& parameters) {
    std::vector<std::pair<const module_param_t*, unsigned long>> values;
    for (const std::string& parameter : parameters) {
        const module_param_t& param = find_param(info, parameter);
        values.emplace_back(&param, parse_value(param, parameter));
    }
    restore_defaults(info);
    for (const auto& [param, value] : values)
        write_variable(*param, value);
}

auto find_loaded(const module_info_t& info) {
    return std::ranges::find(loaded, &info, [](const auto& one) { return one->info; });
}

void begin_to_stand(const module_info_t& info) {
    const std::lock_guard guard(names_mutex);
    if (find_loaded(info) != loaded.end())
        die("load_module: %s is loaded already", info.name);
    loaded.push_back(std::make_unique<LoadedModule>(LoadedModule{&info, 0, false}));
}

void forget(const module_info_t& info) {
    const std::lock_guard guard(names_mutex);
    loaded.erase(find_loaded(info));
}

/* `owner` is one that is loaded, or nobody. */
bool begin_use(LoadedModule* owner) {
    if (owner && owner->going)
        return false;
    if (owner)
        ++owner->users;
    return true;
}

void end_use(const LoadedModule* owner) {
    const auto found = std::ranges::find(loaded, owner, &std::unique_ptr<LoadedModule>::get);
    if (found != loaded.end())
        --(*found)->users;
}

/* From here on nobody begins to use the module, and nobody may be using it. */
void begin_to_go(const module_info_t& info) {
    const std::lock_guard guard(names_mutex);
    const auto found = find_loaded(info);
    if (found == loaded.end())
        die("unload_module: %s is not loaded", info.name);
    LoadedModule& going = **found;
    going.going = true;
    if (going.users == 0)
        return;
    std::string used;
    unsigned files = going.users;
    for (const Name& name : names)
        if (name.owner == &going && name.users > 0) {
            used += " " + name.name;
            files -= name.users;
        }
    if (files > 0)
        used += " " + std::to_string(files) + " open files";
    die("unload_module: %s is in use:%s", info.name, used.c_str());
}

}  // namespace

bool use_module(struct module* owner) {
    const std::lock_guard guard(names_mutex);
    return begin_use(owner);
}

void end_use_of_module(struct module* owner) {
    const std::lock_guard guard(names_mutex);
    end_use(owner);
}

const Service module_service = {forget_all, forget_all, report_names};

const void* inter_module_get(const std::string& name) {
    enter("inter_module_get");
    const std::lock_guard guard(names_mutex);
    const auto found = find_name(name);
    if (found == names.end() || !begin_use(found->owner))
        return nullptr;
    ++found->users;
    return found->data;
}

void inter_module_put(const std::string& name) {
    enter("inter_module_put");
    const std::lock_guard guard(names_mutex);
    const auto found = find_name(name);
    if (found == names.end() || found->users == 0)
        die("inter_module_put: nobody uses the name %s", name.c_str());
    --found->users;
    end_use(found->owner);
}

std::vector<std::string> inter_module_names() {
    const std::lock_guard guard(names_mutex);
    std::vector<std::string> result;
    result.reserve(names.size());
    for (const Name& name : names)
        result.push_back(name.name);
    return result;
}

int load_module(const module_info_t& info, const std::vector<std::string>& parameters) {
    enter("load_module");
    must_sleep("load_module");
    apply_parameters(info, parameters);
    begin_to_stand(info);
    const ContextScope scope(Context::process);
    const int result = info.init();
    must_return_lock_free("the init function of", reinterpret_cast<const void*>(info.init));
    if (result != 0)
        forget(info);
    return result;
}

void unload_module(const module_info_t& info) {
    enter("unload_module");
    must_sleep("unload_module");
    begin_to_go(info);
    const ContextScope scope(Context::process);
    info.exit();
    must_return_lock_free("the exit function of", reinterpret_cast<const void*>(info.exit));
    forget(info);
}

}  // namespace host

struct module* this_module() {
    host::enter("this_module");
    const std::lock_guard guard(host::names_mutex);
    return host::loaded.empty() ? nullptr : host::loaded.back().get();
}

void inter_module_register(const char* name, struct module* owner, const void* userdata) {
    host::enter("inter_module_register");
    host::must_sleep("inter_module_register");
    const std::lock_guard guard(host::names_mutex);
    if (host::find_name(name) != host::names.end())
        host::die("inter_module_register: the name %s is taken", name);
    host::names.push_back({name, owner, userdata, 0});
}

void inter_module_unregister(const char* name) {
    host::enter("inter_module_unregister");
    host::must_sleep("inter_module_unregister");
    const std::lock_guard guard(host::names_mutex);
    const auto found = host::find_name(name);
    if (found == host::names.end())
        host::die("inter_module_unregister: nobody registered the name %s", name);
    host::names.erase(found);
}
