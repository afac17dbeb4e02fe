// A plugin as it was compiled for version 2 of the interface, which ends with report: what came
// later must not be called.
#include <lxclient/PluginBase.h>

#include <cstring>

class Version2 : public lxclient::PluginBase
{
public:
    Version2()
        : PluginBase(MessageThread)
    { }

    // What Q_INTERFACES made of the older header.
    void* qt_metacast(const char* name) override
    {
        return std::strcmp(name, "lxclient.Plugin/2") == 0 ? static_cast<lxclient::Plugin*>(this)
                                                           : PluginBase::qt_metacast(name);
    }
};

class Version2Plugin : public Version2
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "lxclient.Plugin/2" FILE "version2.json")
public:
    lxclient::Report report() const override { return {}; }

private:
    lxclient::Error onInitialise(const QVariantMap&) override { return {}; }
    void onStarted() override { qFatal("called what version 2 does not have"); }
    void registerPayloads() override { onStarted(); }
};

#include "Version2Plugin.moc"
