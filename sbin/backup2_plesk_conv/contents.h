/// What the descriptions of a Plesk backup point to: archives within the archive.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "sbin/backup2_plesk_conv/backup.h"

namespace plesk {

class Contents {
public:
    Contents(foreign_panel::Job& job, const Backup& backup) : job_(job), backup_(backup) {}

    /// Notes that the content elements of `node` are to be fetched.
    /// Files go to `place` by the kind of each: see PlaceFor.
    void Files(const vel_xml::XmlNode& node, const Subscription& of, const std::string& web_space,
               const std::string& docroot);
    /// One mailbox; `object` is told where it is once something was found.
    void Mailbox(const vel_xml::XmlNode& node, const Subscription& of, const std::string& address,
                 const foreign_panel::PanelObject& object);
    /// All mailboxes of a domain in one: folders NAME/ or NAME/Maildir/.
    void DomainMail(const vel_xml::XmlNode& node, const Subscription& of,
                    const std::string& domain);
    /// False when a database of this type and name was asked for before.
    bool IsFirst(const std::string& type, const std::string& name) {
        return databases_.insert(type + " " + name).second;
    }
    void Dump(const vel_xml::XmlNode& node, const Subscription& of, const std::string& type,
              const std::string& name, const foreign_panel::PanelObject& object);

    /// The second pass over the archive. What is not found is reported as lost.
    void Fetch();

private:
    enum class Kind { Files, Mailbox, DomainMail, Mysql, Postgresql };
    struct Use {
        Kind kind;
        std::string offset;  ///< folder within the content's archive, "" = all of it
        std::string place;   ///< in the tree; of a dump the database's name
        std::string what;    ///< for the report
        foreign_panel::PanelObject object;
        bool found = false;
    };
    struct Box {
        foreign_panel::PanelObject object;
        bool filled = false;
    };
    void Note(const vel_xml::XmlNode& cid, const Subscription& of, Use use);
    std::string Find(const std::string& file, const std::string& path,
                     const Subscription& of) const;
    void Unpack(foreign_panel::ArchiveReader& outer, const std::string& file,
                std::vector<Use>& uses);
    using Offsets = std::map<std::string, Use*>;  ///< the first use of each
    void Put(foreign_panel::ArchiveReader& reader, const foreign_panel::Entry& entry,
             const std::string& path, const Offsets& offsets);
    void PutInto(foreign_panel::ArchiveReader& reader, const foreign_panel::Entry& entry, Use& use,
                 const std::string& inner, const std::string& target);
    void PutDump(foreign_panel::ArchiveReader& reader, Use& use);
    std::string MailPlace(const Use& use, const std::string& inner);

    foreign_panel::Job& job_;
    const Backup& backup_;
    std::map<std::string, std::vector<Use>> uses_;  // by the file in the archive
    std::map<std::string, Box> boxes_;              // by address
    std::set<std::string> databases_;
};

}  // namespace plesk
