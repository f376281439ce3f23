#pragma once

#include <Tolbin/Debug.h>

#include <string>

//! Gives a setting a value for a scope.
class SettingScope
{
public:
    SettingScope(const std::string& inKey, const std::string& inValue) : mKey(inKey)
    {
        Tolbin::debug::DebugDatabase::Instance().SetEntry(inKey, inValue);
    }

    ~SettingScope() { Tolbin::debug::DebugDatabase::Instance().RemoveEntry(mKey); }

    SettingScope(const SettingScope&) = delete;
    SettingScope& operator=(const SettingScope&) = delete;

private:
    std::string mKey;
};
