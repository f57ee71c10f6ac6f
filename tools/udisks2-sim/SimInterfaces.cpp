#include "SimInterfaces.h"

#include "SimNames.h"

#include <QXmlStreamReader>

namespace
{
const char* const StandardInterfaces = R"XML(  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="s" name="property_name" direction="in"/>
      <arg type="v" name="value" direction="out"/>
    </method>
    <method name="GetAll">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="a{sv}" name="properties" direction="out"/>
    </method>
    <method name="Set">
      <arg type="s" name="interface_name" direction="in"/>
      <arg type="s" name="property_name" direction="in"/>
      <arg type="v" name="value" direction="in"/>
    </method>
    <signal name="PropertiesChanged">
      <arg type="s" name="interface_name"/>
      <arg type="a{sv}" name="changed_properties"/>
      <arg type="as" name="invalidated_properties"/>
    </signal>
  </interface>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg type="s" name="xml_data" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Peer">
    <method name="Ping"/>
    <method name="GetMachineId">
      <arg type="s" name="machine_uuid" direction="out"/>
    </method>
  </interface>
)XML";

const char* const ObjectManagerXml = R"XML(  <interface name="org.freedesktop.DBus.ObjectManager">
    <method name="GetManagedObjects">
      <arg type="a{oa{sa{sv}}}" name="object_paths_interfaces_and_properties" direction="out"/>
    </method>
    <signal name="InterfacesAdded">
      <arg type="o" name="object_path"/>
      <arg type="a{sa{sv}}" name="interfaces_and_properties"/>
    </signal>
    <signal name="InterfacesRemoved">
      <arg type="o" name="object_path"/>
      <arg type="as" name="interfaces"/>
    </signal>
  </interface>
)XML";

const char* const ManagerXml = R"XML(  <interface name="org.freedesktop.UDisks2.Manager">
    <property type="s" name="Version" access="read"/>
    <property type="as" name="SupportedFilesystems" access="read"/>
    <property type="as" name="SupportedEncryptionTypes" access="read"/>
    <property type="s" name="DefaultEncryptionType" access="read"/>
  </interface>
)XML";

const char* const BlockXml = R"XML(  <interface name="org.freedesktop.UDisks2.Block">
    <property type="ay" name="Device" access="read"/>
    <property type="ay" name="PreferredDevice" access="read"/>
    <property type="aay" name="Symlinks" access="read"/>
    <property type="t" name="DeviceNumber" access="read"/>
    <property type="s" name="Id" access="read"/>
    <property type="t" name="Size" access="read"/>
    <property type="b" name="ReadOnly" access="read"/>
    <property type="o" name="Drive" access="read"/>
    <property type="o" name="MDRaid" access="read"/>
    <property type="o" name="MDRaidMember" access="read"/>
    <property type="s" name="IdUsage" access="read"/>
    <property type="s" name="IdType" access="read"/>
    <property type="s" name="IdVersion" access="read"/>
    <property type="s" name="IdLabel" access="read"/>
    <property type="s" name="IdUUID" access="read"/>
    <property type="a(sa{sv})" name="Configuration" access="read"/>
    <property type="o" name="CryptoBackingDevice" access="read"/>
    <property type="b" name="HintPartitionable" access="read"/>
    <property type="b" name="HintSystem" access="read"/>
    <property type="b" name="HintIgnore" access="read"/>
    <property type="b" name="HintAuto" access="read"/>
    <property type="s" name="HintName" access="read"/>
    <property type="s" name="HintIconName" access="read"/>
    <property type="s" name="HintSymbolicIconName" access="read"/>
    <property type="as" name="UserspaceMountOptions" access="read"/>
  </interface>
)XML";

const char* const PartitionXml = R"XML(  <interface name="org.freedesktop.UDisks2.Partition">
    <property type="u" name="Number" access="read"/>
    <property type="s" name="Type" access="read"/>
    <property type="t" name="Flags" access="read"/>
    <property type="t" name="Offset" access="read"/>
    <property type="t" name="Size" access="read"/>
    <property type="s" name="Name" access="read"/>
    <property type="s" name="UUID" access="read"/>
    <property type="o" name="Table" access="read"/>
    <property type="b" name="IsContainer" access="read"/>
    <property type="b" name="IsContained" access="read"/>
  </interface>
)XML";

const char* const PartitionTableXml = R"XML(  <interface name="org.freedesktop.UDisks2.PartitionTable">
    <property type="ao" name="Partitions" access="read"/>
    <property type="s" name="Type" access="read"/>
  </interface>
)XML";

const char* const FilesystemXml = R"XML(  <interface name="org.freedesktop.UDisks2.Filesystem">
    <method name="Mount">
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="s" name="mount_path" direction="out"/>
    </method>
    <method name="Unmount">
      <arg type="a{sv}" name="options" direction="in"/>
    </method>
    <property type="aay" name="MountPoints" access="read"/>
    <property type="t" name="Size" access="read"/>
  </interface>
)XML";

const char* const DriveXml = R"XML(  <interface name="org.freedesktop.UDisks2.Drive">
    <property type="s" name="Vendor" access="read"/>
    <property type="s" name="Model" access="read"/>
    <property type="s" name="Revision" access="read"/>
    <property type="s" name="Serial" access="read"/>
    <property type="s" name="WWN" access="read"/>
    <property type="s" name="Id" access="read"/>
    <property type="a{sv}" name="Configuration" access="read"/>
    <property type="s" name="Media" access="read"/>
    <property type="as" name="MediaCompatibility" access="read"/>
    <property type="b" name="MediaRemovable" access="read"/>
    <property type="b" name="MediaAvailable" access="read"/>
    <property type="b" name="MediaChangeDetected" access="read"/>
    <property type="t" name="Size" access="read"/>
    <property type="t" name="TimeDetected" access="read"/>
    <property type="t" name="TimeMediaDetected" access="read"/>
    <property type="b" name="Optical" access="read"/>
    <property type="b" name="OpticalBlank" access="read"/>
    <property type="u" name="OpticalNumTracks" access="read"/>
    <property type="u" name="OpticalNumAudioTracks" access="read"/>
    <property type="u" name="OpticalNumDataTracks" access="read"/>
    <property type="u" name="OpticalNumSessions" access="read"/>
    <property type="i" name="RotationRate" access="read"/>
    <property type="s" name="ConnectionBus" access="read"/>
    <property type="s" name="Seat" access="read"/>
    <property type="b" name="Removable" access="read"/>
    <property type="b" name="Ejectable" access="read"/>
    <property type="s" name="SortKey" access="read"/>
    <property type="b" name="CanPowerOff" access="read"/>
    <property type="s" name="SiblingId" access="read"/>
  </interface>
)XML";
} // namespace

QString SimInterfaces::InterfaceXml(const QString& interface)
{
    static const QMap<QString, const char*> table{
        {SimNames::ObjectManagerInterface, ObjectManagerXml},
        {SimNames::ManagerInterface, ManagerXml},
        {SimNames::BlockInterface, BlockXml},
        {SimNames::PartitionInterface, PartitionXml},
        {SimNames::PartitionTableInterface, PartitionTableXml},
        {SimNames::FilesystemInterface, FilesystemXml},
        {SimNames::DriveInterface, DriveXml},
    };
    const auto it = table.constFind(interface);
    return it == table.constEnd() ? QString() : QString::fromLatin1(*it);
}

QMap<QString, QString> SimInterfaces::PropertySignatures(const QString& interface)
{
    QMap<QString, QString> signatures;
    QXmlStreamReader xml(InterfaceXml(interface));
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1String("property"))
            signatures.insert(xml.attributes().value(QLatin1String("name")).toString(),
                              xml.attributes().value(QLatin1String("type")).toString());
    }
    return signatures;
}

QString SimInterfaces::IntrospectXml(const QStringList& interfaces, const QStringList& children)
{
    QString xml = QStringLiteral("<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
                                 "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n");
    // A path that only leads to objects (block_devices, drives) has no interfaces at all.
    if (!interfaces.isEmpty())
        xml += QLatin1String(StandardInterfaces);
    for (const QString& interface : interfaces)
        xml += InterfaceXml(interface);
    for (const QString& child : children)
        xml += QStringLiteral("  <node name=\"%1\"/>\n").arg(child);
    xml += QLatin1String("</node>\n");
    return xml;
}
