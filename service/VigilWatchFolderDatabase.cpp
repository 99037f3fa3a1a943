#include "service/VigilWatchFolderDatabase.h"

#include <algorithm>
#include <unordered_set>

#include "platform/DirectoryChanges.h"
#include "platform/FileSystem.h"
#include "service/VigilWatchFolderThread.h"

namespace Vigil::Watch {

Database::Database() = default;

Database::~Database() { close(); }

void Database::open(const std::u16string& dataFolder) {
    Osb::MutexLock lock(mutex_);
    if (opened_) return;
    cache_.setDataFolder(dataFolder);
    thread_ = std::make_unique<Thread>(*this);
    thread_->begin();
    opened_ = true;
    // Runs with the lock held: the callbacks are this object's locked variants. load calls them
    // before it returns, so they run under mutex_ too, which the analysis cannot see through a
    // lambda: it is told not to look at the two.
    cache_.load([this](const Guid& guid, const WatchedFolder& folder)
                    OSB_NO_THREAD_SAFETY_ANALYSIS { addFoldersLocked(guid, {folder}); },
                [this]() OSB_NO_THREAD_SAFETY_ANALYSIS { save(); });
}

void Database::close() {
    std::unique_ptr<Thread> thread;
    {
        Osb::MutexLock lock(mutex_);
        if (!thread_) return;
        thread_->stopAll();
        thread = std::move(thread_);
    }
    // Waited for without the lock: a completion may be in addChanges or removeFolders right now.
    // It finds thread_ unhooked, so it touches only the tables.
    thread->join();
}

void Database::addFolders(const Guid& guid, const std::vector<WatchedFolder>& folders) {
    Osb::MutexLock lock(mutex_);
    addFoldersLocked(guid, folders);
    save();
}

void Database::addFoldersLocked(const Guid& guid, const std::vector<WatchedFolder>& folders) {
    std::vector<WatchedFolder>& mine = folders_[guid];
    for (const WatchedFolder& folder : folders) {
        const bool known = std::any_of(mine.begin(), mine.end(), [&](const WatchedFolder& have) {
            return have.path == folder.path;
        });
        if (known) continue;
        mine.push_back(folder);
        auto [first, last] = pending_.equal_range(guid);
        for (auto it = first; it != last; ++it) {
            if (it->second.folder == folder.path) it->second.gone = false;
        }
        if (thread_) thread_->startWatch(guid, folder.path, folder.options);
    }
}

void Database::removeFolders(const Guid& guid, const std::vector<WatchedFolder>& folders) {
    Osb::MutexLock lock(mutex_);
    removeFoldersLocked(guid, folders, false);
    save();
}

void Database::folderGone(const Guid& guid, const std::u16string& folder) {
    Osb::MutexLock lock(mutex_);
    if (removeFoldersLocked(guid, {WatchedFolder{folder, FolderOptions{}}}, true)) save();
}

bool Database::removeFoldersLocked(const Guid& guid, const std::vector<WatchedFolder>& folders,
                                   bool keepNames) {
    bool removed = false;
    auto record = folders_.find(guid);
    if (record != folders_.end()) {
        std::vector<WatchedFolder>& mine = record->second;
        for (const WatchedFolder& folder : folders) {
            auto same = [&](const WatchedFolder& have) { return have.path == folder.path; };
            if (std::none_of(mine.begin(), mine.end(), same)) continue;
            if (thread_) thread_->stopWatch(guid, folder.path);
            mine.erase(std::remove_if(mine.begin(), mine.end(), same), mine.end());
            removed = true;
            if (!keepNames) continue;
            auto [first, last] = pending_.equal_range(guid);
            for (auto it = first; it != last; ++it) {
                if (it->second.folder != folder.path) continue;
                if (it->second.names.empty()) {
                    recountLocked(it->second, 0);
                    pending_.erase(it);
                } else {
                    it->second.gone = true;
                }
                break;
            }
        }
        if (mine.empty()) folders_.erase(record);
    }
    if (keepNames) return removed;
    for (const WatchedFolder& folder : folders) {
        auto [first, last] = pending_.equal_range(guid);
        for (auto it = first; it != last; ++it) {
            if (it->second.folder != folder.path) continue;
            recountLocked(it->second, 0);
            pending_.erase(it);
            break;
        }
    }
    return removed;
}

bool Database::hasFolderLocked(const Guid& guid, const std::u16string& path) {
    auto record = folders_.find(guid);
    if (record == folders_.end()) return false;
    return std::any_of(record->second.begin(), record->second.end(),
                       [&](const WatchedFolder& have) { return have.path == path; });
}

void Database::getFolders(const Guid& guid, std::vector<WatchedFolder>& result) {
    std::vector<WatchedFolder> missing;
    {
        Osb::MutexLock lock(mutex_);
        auto record = folders_.find(guid);
        if (record == folders_.end()) return;
        for (const WatchedFolder& folder : record->second) {
            (Osb::PathExists(folder.path) ? result : missing).push_back(folder);
        }
    }
    if (missing.empty()) return;
    Osb::MutexLock lock(mutex_);
    if (removeFoldersLocked(guid, missing, true)) save();
}

void Database::goneFolders(const Guid& guid, std::vector<std::u16string>& paths) {
    Osb::MutexLock lock(mutex_);
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        if (it->second.gone && !it->second.names.empty()) paths.push_back(it->second.folder);
    }
}

void Database::getChanges(const Guid& guid, const std::u16string& folder,
                          std::vector<std::u16string>& names, bool clear) {
    Osb::MutexLock lock(mutex_);
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        if (it->second.folder != folder) continue;
        if (clear) {
            // Moved out rather than copied and cleared: the same result without a second copy of
            // what may be a long list.
            names = std::move(it->second.names);
            it->second.names.clear();
            it->second.directories.clear();
            recountLocked(it->second, 0);
            // Nothing more can come to a folder that went: its record has served.
            if (it->second.gone) pending_.erase(it);
        } else {
            names = it->second.names;
        }
        return;
    }
}

void Database::getChanges(const Guid& guid, const std::u16string& folder,
                          std::vector<std::u16string>& names, bool clear,
                          const std::function<bool(const std::u16string& directory)>& sendable) {
    Osb::MutexLock lock(mutex_);
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        if (it->second.folder != folder) continue;
        PendingRecord& record = it->second;
        if (record.filed &&
            std::all_of(record.directories.begin(), record.directories.end(), sendable)) {
            // Every name is sendable: the same work as for a client that sees everything.
            if (clear) {
                names = std::move(record.names);
                record.names.clear();
                record.directories.clear();
                recountLocked(record, 0);
                if (record.gone) pending_.erase(it);
            } else {
                names = record.names;
            }
            return;
        }
        // Names of one directory tend to come together: ask again only when the directory
        // changes. The directory is copied, since the name it comes from may be moved below.
        std::u16string directory;
        bool known = false;
        bool send = false;
        auto decide = [&](const std::u16string& name) {
            const std::u16string_view of = DirectoryOf(name);
            if (!known || of != directory) {
                directory.assign(of);
                send = sendable(directory);
                known = true;
            }
            return send;
        };
        names.clear();
        std::vector<std::u16string>& list = it->second.names;
        if (!clear) {
            for (const std::u16string& name : list) {
                if (decide(name)) names.push_back(name);
            }
            return;
        }
        std::vector<std::u16string> kept;
        for (std::u16string& name : list) {
            const bool take = decide(name);
            (take ? names : kept).push_back(std::move(name));
        }
        list = std::move(kept);
        if (record.bytes != 0) recountLocked(record, PendingShare::cost(list));
        recountDirectoriesLocked(record);
        if (list.empty()) {
            record.directories.clear();
            if (record.gone) pending_.erase(it);
        }
        return;
    }
}

void Database::pendingDirectories(const Guid& guid, const std::u16string& folder,
                                  std::vector<std::u16string>& directories) {
    Osb::MutexLock lock(mutex_);
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        PendingRecord& record = it->second;
        if (record.folder != folder) continue;
        if (!record.filed) {
            fileDirectories(record, record.names.begin(), record.names.end());
            record.filed = true;
        }
        directories.insert(directories.end(), record.directories.begin(), record.directories.end());
        return;
    }
}

void Database::addChanges(const Guid& guid, const std::u16string& folder,
                          const std::vector<std::u16string>& names) {
    addChanges(guid, folder, std::vector<std::u16string>(names));
}

void Database::addChanges(const Guid& guid, const std::u16string& folder,
                          std::vector<std::u16string>&& names) {
    Osb::MutexLock lock(mutex_);
    addChangesLocked(guid, folder, std::move(names));
}

void Database::addChangesLocked(const Guid& guid, const std::u16string& folder,
                                std::vector<std::u16string>&& names, uint32_t owner,
                                const std::vector<uint32_t>& keys) {
    // Root's and the service user's folders pay no more than this test per batch, unless their
    // subtree holds directories of limited owners (keys).
    size_t admitted = 0;
    const bool limited = owner != 0 && Osb::IsLimitedOwner(owner);
    // (name's index after admission, bound) for each name counted against a directory's bound
    std::vector<std::pair<size_t, uint32_t>> charges;
    if (limited) {
        admitted = shares_.admit(owner, folder, names);
        if (names.empty()) return;
    } else if (keys.size() == names.size()) {
        size_t kept = 0;
        for (size_t i = 0; i < names.size(); ++i) {
            const uint32_t key = keys[i];
            if (key != 0 && Osb::IsLimitedOwner(key)) {
                if (!shares_.admitOne(key, folder, PendingShare::cost(names[i]))) continue;
                charges.push_back({kept, key});
            }
            if (kept != i) names[kept] = std::move(names[i]);
            ++kept;
        }
        names.resize(kept);
        if (names.empty()) return;
    }
    // Counts the admitted names of directories with a bound on `record`; before the names move.
    auto charge = [&](PendingRecord& record) {
        for (const auto& [index, key] : charges) {
            record.charged[key] += PendingShare::cost(names[index]);
            record.directoryKeys.insert_or_assign(std::u16string(DirectoryOf(names[index])), key);
        }
    };
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        if (it->second.folder != folder) continue;
        if (limited) {
            // A folder of that path owned by another user before: its names are no longer
            // counted for that user.
            if (it->second.owner != owner) recountLocked(it->second, 0);
            it->second.owner = owner;
            it->second.bytes += admitted;
        }
        charge(it->second);
        std::vector<std::u16string>& list = it->second.names;
        if (it->second.filed) fileDirectories(it->second, names.begin(), names.end());
        if (list.empty()) {
            list = std::move(names);  // the batch's own storage becomes the list
        } else {
            list.insert(list.end(), std::make_move_iterator(names.begin()),
                        std::make_move_iterator(names.end()));
        }
        return;
    }
    // Behind the client's other records: a multimap inserts equal keys at the end of their range.
    PendingRecord record;
    record.folder = folder;
    charge(record);
    record.names = std::move(names);
    record.owner = owner;
    record.bytes = admitted;
    pending_.insert({guid, std::move(record)});
}

void Database::addWatchChanges(const Guid& guid, const std::u16string& folder,
                               std::vector<std::u16string>&& names, uint32_t owner,
                               const std::vector<uint32_t>& keys) {
    Osb::MutexLock lock(mutex_);
    if (hasFolderLocked(guid, folder))
        addChangesLocked(guid, folder, std::move(names), owner, keys);
}

void Database::removeChanges(const Guid& guid, const std::u16string& folder,
                             const std::vector<std::u16string>& names) {
    Osb::MutexLock lock(mutex_);
    auto [first, last] = pending_.equal_range(guid);
    for (auto it = first; it != last; ++it) {
        if (it->second.folder != folder) continue;
        std::vector<std::u16string>& list = it->second.names;
        if (names.size() == 1) {
            std::erase(list, names.front());
        } else if (!names.empty()) {
            // One pass over the list however many names are taken off: a two-step collection
            // sends back everything it got.
            std::vector<const std::u16string*> gone;
            gone.reserve(names.size());
            for (const std::u16string& name : names) gone.push_back(&name);
            auto less = [](const std::u16string* a, const std::u16string* b) { return *a < *b; };
            std::sort(gone.begin(), gone.end(), less);
            std::erase_if(list, [&](const std::u16string& name) {
                return std::binary_search(gone.begin(), gone.end(), &name, less);
            });
        }
        if (it->second.bytes != 0) recountLocked(it->second, PendingShare::cost(list));
        recountDirectoriesLocked(it->second);
        if (list.empty()) pending_.erase(it);
        return;
    }
}

void Database::fileDirectories(PendingRecord& record,
                               std::vector<std::u16string>::const_iterator first,
                               std::vector<std::u16string>::const_iterator last) {
    // A batch tends to hold runs of names of one directory: look up only where the run ends.
    std::u16string_view previous;
    bool any = false;
    for (auto name = first; name != last; ++name) {
        const std::u16string_view of = DirectoryOf(*name);
        if (any && of == previous) continue;
        previous = of;
        any = true;
        if (record.directories.find(of) == record.directories.end()) {
            record.directories.emplace(of);
        }
    }
}

void Database::save() {
    // The cache keeps only the table's folders; the copy is what the file format wants to see.
    cache_.save(CachedFolderTable(folders_.begin(), folders_.end()));
}

std::u16string Database::cachePathForTesting() {
    Osb::MutexLock lock(mutex_);
    return cache_.currentPath();
}

bool Database::startsSettledForTesting() {
    Osb::MutexLock lock(mutex_);
    // Begun and also watched whole: the backend walks the rest of a big tree after the start.
    return !thread_ || (thread_->startsSettled() && Osb::DirectoryWalksDoneForTesting());
}

size_t Database::activeWatches() {
    Osb::MutexLock lock(mutex_);
    return thread_ ? thread_->activeCount() : 0;
}

void Database::runLockedForTesting(const std::function<void()>& work) {
    Osb::MutexLock lock(mutex_);
    work();
}

namespace {

std::unique_ptr<Database>& ProcessDatabaseHolder() {
    // Never destroyed: the watch thread may still be running at exit when the service was not
    // stopped in order.
    static auto* holder = new std::unique_ptr<Database>(std::make_unique<Database>());
    return *holder;
}

}  // namespace

Database& ProcessDatabase() { return *ProcessDatabaseHolder(); }

void ResetProcessDatabaseForTesting() { ProcessDatabaseHolder() = std::make_unique<Database>(); }

}  // namespace Vigil::Watch
