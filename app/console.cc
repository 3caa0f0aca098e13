// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/console.h"

#include <algorithm>
#include <span>
#include <sstream>

#include "app/console_verbs.h"
#include "app/script_text.h"
#include "app/suggest.h"
#include "fabric/topology.h"
#include "host/check.h"
#include "tarv/tarv-api-control.h"

namespace app {
namespace {

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

const tarv_proc_command_t* find_command(const std::string& word) {
    const auto commands = std::span(tarv_proc_commands);
    const auto found = std::ranges::find(commands, word, &tarv_proc_command_t::cmd_name);
    return found == commands.end() ? nullptr : &*found;
}

const ConsoleVerb* find_verb(std::string word) {
    if (word == "?")
        word = "help";
    if (word == "exit")
        word = "quit";
    const auto found = std::ranges::find(console_verbs(), word, &ConsoleVerb::name);
    return found == console_verbs().end() ? nullptr : &*found;
}

std::vector<std::string> all_commands() {
    std::vector<std::string> names;
    for (const tarv_proc_command_t& row : tarv_proc_commands)
        names.emplace_back(row.cmd_name);
    for (const ConsoleVerb& verb : console_verbs())
        names.emplace_back(verb.name);
    return names;
}

/* What can follow a word: what its syntax speaks of, and in front of its explanation is a command's
 * syntax. */
struct Follow {
    std::vector<std::string> words;
    bool addresses;
};

Follow what_follows(const std::string& word) {
    if (const ConsoleVerb* const verb = find_verb(word)) {
        const std::string_view syntax = verb->syntax;
        return {words_of(verb->words),
                syntax.find("IP") != syntax.npos || syntax.find("PEER") != syntax.npos};
    }
    const tarv_proc_command_t* const command = find_command(word);
    const std::string_view help = command ? command->help : "";
    if (help.starts_with("on/off"))
        return {{"on", "off"}, false};
    const std::size_t syntax_end = help.find(" - ");
    return {{}, syntax_end != help.npos && help.substr(0, syntax_end).find("ip") != help.npos};
}

/* A command whose arguments include addresses, with addresses in the place of hosts' names: the
 * module knows none. Which arguments are addresses is said by the command's syntax. */
std::string without_names(const std::string& line, const std::string& help, const Site& site) {
    const std::vector<std::string> syntax = words_of(help.substr(0, help.find(" - ")));
    std::vector<std::string> words = words_of(line);
    bool named = false;
    for (std::size_t i = 1; i < words.size() && i <= syntax.size(); ++i) {
        const bool takes_address = syntax[i - 1] == "ip" || syntax[i - 1].ends_with("_ip");
        const auto ip = takes_address && !fabric::parse_ip(words[i]) ? address_of(site, words[i])
                                                                     : std::nullopt;
        if (ip)
            words[i] = fabric::format_ip(*ip);
        named |= ip.has_value();
    }
    if (!named)
        return line;
    std::string result;
    for (const std::string& word : words)
        result += (result.empty() ? "" : " ") + word;
    return result;
}

std::string format_reply(std::size_t number, tarv_stat_t status, const tarv_arp_data_t* record) {
    std::string text = "reply " + std::to_string(number) + ": " + status_name(status) + "\n";
    if (status == tarv_stat_ok)
        text += format_record(*record) + "\n";
    return text;
}

}  // namespace

Console::Console(Machine& machine, const Site& site, Terminal& terminal)
    : machine_(machine), site_(site), terminal_(terminal) {
    for (const fabric::Host& host : site.hosts)
        addresses_.insert({fabric::format_ip(host.ip), host.machine()});
}

void Console::perform(const std::string& line) {
    ++line_number_;
    const std::vector<std::string> words = words_of(line);
    if (words.empty() || words[0].starts_with('#'))
        return;
    remember_addresses(line);
    if (const tarv_proc_command_t* const command = find_command(words[0]))
        machine_.command(without_names(line, command->help, site_));
    else if (const ConsoleVerb* const verb = find_verb(words[0]))
        perform_verb(*verb, line, *this);
    else
        refuse_command(words[0]);
}

void Console::refuse_command(const std::string& word) const {
    const std::string meant = suggest(word, all_commands());
    throw fabric::InputError(
        "console", line_number_,
        "there is no command \"" + word + "\"" + (meant.empty() ? "; help lists them" : meant));
}

void Console::remember_addresses(const std::string& line) {
    for (const std::string& word : words_of(line))
        if (fabric::parse_ip(word))
            addresses_.insert(word);
}

std::vector<std::string> Console::complete(const std::string& before,
                                           const std::string& word) const {
    std::vector<std::string> found;
    const auto offer = [&](const std::string& candidate) {
        if (candidate.starts_with(word))
            found.push_back(candidate);
    };
    const std::vector<std::string> words = words_of(before);
    if (words.empty()) {
        std::ranges::for_each(all_commands(), offer);
    } else {
        const Follow follow = what_follows(words[0]);
        std::ranges::for_each(follow.words, offer);
        if (follow.addresses)
            std::ranges::for_each(addresses_, offer);
    }
    std::ranges::sort(found);
    return found;
}

void Console::resolve(const ScriptRequest& request) {
    Request& made = requests_.emplace_back();
    made.console = this;
    made.number = requests_.size();
    auto* const get_ib_data = machine_.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn");
    tarv_arp_data_t record{};
    ++waiting_;
    const tarv_stat_t status =
        get_ib_data(request.ip, request.from, request.paths, &record,
                    request.callback ? on_reply : nullptr, &made, request.invalidate);
    look_ups_.returned(status, record);
    if (status != tarv_stat_pending)
        --waiting_;
    terminal_.print("resolve " + std::to_string(made.number) + ": " + status_name(status) + "\n" +
                    (status == tarv_stat_ok ? format_record(record) + "\n" : ""));
    const std::lock_guard guard(made.mutex);
    made.announced = true;
    terminal_.post(made.reply);
}

void Console::on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    auto& request = *static_cast<Request*>(context);
    request.console->look_ups_.replied(status);
    const std::string text = format_reply(request.number, status, record);
    {
        const std::lock_guard guard(request.mutex);
        if (request.announced)
            request.console->terminal_.post(text);
        else
            request.reply = text;
    }
    --request.console->waiting_;
}

}  // namespace app
