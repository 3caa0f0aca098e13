// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What looks at all entries: how long a run of ageing keeps everybody out of the table, and how
// long its rendering takes; against the plain walk.
#include <chrono>
#include <cstring>

#include "bench/bench.h"
#include "bench/plain.h"

// The linker puts these in front of the host's write lock (see CMakeLists.txt): the time between
// them is how long the table was locked.
unsigned long real_write_lock(rwlock_t* lock) __asm__("__real_plat_write_lock_irqsave");
void real_write_unlock(rwlock_t* lock,
                       unsigned long flags) __asm__("__real_plat_write_unlock_irqrestore");
unsigned long timed_write_lock(rwlock_t* lock) __asm__("__wrap_plat_write_lock_irqsave");
void timed_write_unlock(rwlock_t* lock,
                        unsigned long flags) __asm__("__wrap_plat_write_unlock_irqrestore");

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

Clock::time_point locked_at;
std::chrono::duration<double> last_hold;  // of the last write lock that was given back

tarv_hash_entry_t* make_entry(u32 n) {
    auto* const entry = make<tarv_hash_entry_t>();
    entry->arp_data = peer_record(n);
    tarv_aim_paths(&entry->arp_data);
    return entry;
}

constexpr unsigned long ageing_period = 15'000;

class Module {
  public:
    Module() { tarv_hash_init(); }
    ~Module() { tarv_hash_destroy(); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    void learn(u32 n) { tarv_hash_add_entry(make_entry(n)); }
    /// The timer falls due.
    void age(unsigned long idle_seconds) {
        arp_cache_timeout_sec = idle_seconds;
        pass_ticks(ageing_period);
    }
    char* print(u32* length) {
        char* text = nullptr;
        tarv_hash_print_to_string(&text, length);
        return text;
    }
};

class Plain {
  public:
    void learn(u32 n) { table_.add(make_entry(n)); }
    void age(unsigned long idle_seconds) {
        pass_ticks(ageing_period);
        table_.age(idle_seconds * HZ);
    }
    char* print(u32* length) { return table_.print(length); }

  private:
    PlainTable table_;
};

template <class Table>
void fill(Table& table, u32 peers) {
    for (const u32 n : shuffled(peers))
        table.learn(n);
}

/// The number of lines, which is one more than that of the entries.
template <class Table>
std::ptrdiff_t lines_of(Table& table) {
    u32 length = 0;
    char* const text = table.print(&length);
    const auto lines = std::count(text, text + length, '\n');
    kfree(text);
    return lines;
}

/// The lock's hold in a run that finds nothing to take out.
template <class Table>
void ageing_idle(benchmark::State& state) {
    Table table;
    fill(table, static_cast<u32>(state.range(0)));
    for (auto _ : state) {
        table.age(1'000'000'000);
        state.SetIterationTime(last_hold.count());
    }
    require(lines_of(table) == state.range(0) + 1, "an idle run took an entry out");
}

/// The lock's hold in a run that takes all entries out.
template <class Table>
void ageing_all(benchmark::State& state) {
    Table table;
    for (auto _ : state) {
        fill(table, static_cast<u32>(state.range(0)));
        table.age(1);
        state.SetIterationTime(last_hold.count());
        require(lines_of(table) == 1, "an entry outlived its time");
    }
}

template <class Table>
void render(benchmark::State& state) {
    Table table;
    fill(table, static_cast<u32>(state.range(0)));
    for (auto _ : state) {
        u32 length = 0;
        kfree(table.print(&length));
        benchmark::DoNotOptimize(length);
    }
    require(lines_of(table) == state.range(0) + 1, "an entry was not rendered");
}

/// The two that are compared must write the same.
void compare_texts() {
    Module module;
    Plain plain;
    fill(module, 5000);
    fill(plain, 5000);
    u32 length = 0, plain_length = 0;
    char* const text = module.print(&length);
    char* const plain_text = plain.print(&plain_length);
    require(length == plain_length && std::memcmp(text, plain_text, length) == 0,
            "the table and the plain walk render two texts");
    kfree(text);
    kfree(plain_text);
}

void register_rows() {
    compare_texts();
    for (const u32 peers : {16u, 256u, 4096u, full_subnet}) {
        row("ageing_idle", "tarv", peers, ageing_idle<Module>)->UseManualTime();
        row("ageing_idle", "plain", peers, ageing_idle<Plain>)->UseManualTime();
        row("ageing_all", "tarv", peers, ageing_all<Module>)->UseManualTime()->Iterations(3);
        row("ageing_all", "plain", peers, ageing_all<Plain>)->UseManualTime()->Iterations(3);
        row("render", "tarv", peers, render<Module>);
        row("render", "plain", peers, render<Plain>);
    }
}

}  // namespace

unsigned long timed_write_lock(rwlock_t* lock) {
    const unsigned long flags = real_write_lock(lock);
    locked_at = Clock::now();
    return flags;
}

void timed_write_unlock(rwlock_t* lock, unsigned long flags) {
    last_hold = Clock::now() - locked_at;
    real_write_unlock(lock, flags);
}

int main(int argc, char** argv) {
    return bench::run(argc, argv, register_rows);
}
