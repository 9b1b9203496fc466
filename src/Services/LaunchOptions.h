#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// What opening one link in a browser takes besides the link and the browser.
struct LaunchOptions
{
    // Lets the browser's window take the focus (the token that came with the link).
    QString activationToken;
    // The user's own arguments for this browser, placed before the link.
    QStringList extraArguments;
    // Opens the browser's private window, where its family has one.
    bool privateWindow = false;
    // Called once the browser's process is running, before its verdict: from
    // then on the link is the browser's, whatever the verdict says.
    std::function<void()> started;
    // Called as its process is asked for, for the trail's timing.
    std::function<void()> spawning;
};
