/// Panel data of one edition of the panel in the form of another.
///
/// A document names the edition that made it by a code ("dist" of /doc/info): "3" is the larger
/// edition, a smaller code the smaller one; "2" is an old name of "3". Codes are compared as texts.
/// Data made on CloudLinux says so in the parameter "oscloudlinux" of the element "user.edit".
///
/// Everything here changes the given document in place, in memory; copies of the handle share it.
/// Nothing fails by itself: a document that lacks what a conversion looks for stays as it is there.
#pragma once

#include <memory>
#include <string>

#include "vel/vel_xml.h"

#include "backup_common/export.h"

namespace backup2 {

struct SharedWork;  // what the elements of one conversion share, hidden in the source

// ---- Choice -------------------------------------------------------------------------------------

/// The code of the edition that made the document: "dist" of its node /doc/info, "2" read as "3".
BACKUP2_EXPORT std::string GetBackupDist(const vel_xml::XmlNode& info);
/// Whether this host is one of the larger edition on CloudLinux.
BACKUP2_EXPORT bool IsCloudLinux(const std::string& dist);
/// Whether the document was made by the larger edition on CloudLinux.
BACKUP2_EXPORT bool FromCloudLinux(const vel_xml::Xml& xml, const std::string& backup_dist);
/// The conversion that the document needs on a host with the code `host_dist`: "tavo2merun",
/// "merun2tavo", "cloudlinux2merun"; "external" (changes nothing) for data from outside of the
/// host's own form; "" when there is none to make, also for a document without /doc/info.
BACKUP2_EXPORT std::string GetConversion(const vel_xml::Xml& xml, const std::string& host_dist);
/// Makes the conversion that GetConversion names. What it throws is lack of memory; the document is
/// then partly converted and must not be saved.
BACKUP2_EXPORT void Convert(const vel_xml::Xml& xml, const std::string& host_dist);

// ---- Documents ----------------------------------------------------------------------------------

/// Changes nothing: what is already right.
class BACKUP2_EXPORT DummyConverter {
public:
    explicit DummyConverter(const vel_xml::Xml& xml) : xml_(xml) {}
    DummyConverter(const DummyConverter&) = delete;
    DummyConverter& operator=(const DummyConverter&) = delete;
    /// Converts the document and returns it, not a copy of its tree.
    virtual vel_xml::Xml Convert();
    virtual ~DummyConverter();

protected:
    /// Converts every "elem" that the document holds now, in document order.
    vel_xml::Xml ConvertElements(const std::string& kind);

    vel_xml::Xml xml_;
};

/// From the smaller edition to the larger one.
class BACKUP2_EXPORT Tavo2MerunConverter : public DummyConverter {
public:
    using DummyConverter::DummyConverter;
    vel_xml::Xml Convert() override;
};

/// From the larger edition to the smaller one.
class BACKUP2_EXPORT Merun2TavoConverter : public DummyConverter {
public:
    using DummyConverter::DummyConverter;
    vel_xml::Xml Convert() override;
};

/// From CloudLinux to another system.
class BACKUP2_EXPORT Cloudlinux2MerunConverter : public DummyConverter {
public:
    using DummyConverter::DummyConverter;
    vel_xml::Xml Convert() override;
};

/// By the exact name of the conversion; any other name ("external") gives one that does nothing.
BACKUP2_EXPORT std::shared_ptr<DummyConverter> GetConverter(const vel_xml::Xml& xml,
                                                            const std::string& kind);

// ---- Elements -----------------------------------------------------------------------------------

/// Converts one element: this one leaves it alone.
class BACKUP2_EXPORT Conv {
public:
    Conv() = default;
    Conv(const Conv&) = delete;
    Conv& operator=(const Conv&) = delete;
    virtual void ConvertType();
    virtual ~Conv();
};

/// The user's own element: "cloudlinux2merun" takes the document's first "oscloudlinux" away.
class BACKUP2_EXPORT UserConv : public Conv {
public:
    /// Made on its own (`work` null) it changes the document at once; as one of many the change
    /// waits until all have been converted, as some may stand in what goes away.
    UserConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node, const std::string& kind,
             const std::shared_ptr<SharedWork>& work = nullptr);
    ~UserConv() override;
    void ConvertType() override;

private:
    vel_xml::Xml xml_;
    vel_xml::XmlNode node_;
    std::string kind_;
    std::shared_ptr<SharedWork> work_;
};

/// A database. Smaller edition: elid "shop->MySQL", child "server" with the text "MySQL"; larger
/// edition: elid "shop->mysql->bob" (bob is the elid of the document's user), child "type" with
/// the text "mysql". An elid with too few parts loses from its end: the whole text is the part cut.
class BACKUP2_EXPORT DBConv : public Conv {
public:
    /// `work` saves the search for the user's element.
    DBConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node, const std::string& kind,
           const std::shared_ptr<SharedWork>& work = nullptr);
    ~DBConv() override;
    void ConvertType() override;

private:
    std::string ToMerun(std::string elid) const;
    static std::string ToTavo(std::string elid);
    /// Children named `from` get the name `to`, and another text.
    void ConvertChildren(const char* from, const char* to, std::string (*convert)(std::string));

    vel_xml::Xml xml_;
    vel_xml::XmlNode node_;
    std::string kind_;
    std::shared_ptr<SharedWork> work_;
};

/// The converter of an element "elem": a DBConv within a parent named "db" (whatever the element's
/// own name is), a UserConv for "user.edit", a Conv for all others.
BACKUP2_EXPORT std::shared_ptr<Conv> GetElemConv(const vel_xml::Xml& xml,
                                                 const vel_xml::XmlNode& node,
                                                 const std::string& kind);

}  // namespace backup2
