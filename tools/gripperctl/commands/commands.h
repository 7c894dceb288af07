#pragma once

class Session;

/// What the commands do, a file each. All of them return when they are done, and throw a Failure
/// otherwise.
namespace commands {

void status(Session &session);
void get(Session &session);
void set(Session &session);
void activate(Session &session);
void move(Session &session);
void open(Session &session);
void close(Session &session);
void release(Session &session);
void led(Session &session);
void scan(Session &session);
void rename(Session &session);
void upgrade(Session &session);
void watch(Session &session);
void record(Session &session);
void plot(Session &session);

} // namespace commands
