#include "core/server.hpp"

#include "core/conn_slot.hpp"
#include "platform/text.hpp"

#include <asio.hpp>

namespace orv {

Server::Server(std::filesystem::path dir)
    : start_dir(std::move(dir)), io_(std::make_unique<asio::io_context>(1)) {}

Server::~Server() {
    // Slots own asio sockets: they must go before the event loop does.
    conns.take_all();
}

asio::io_context& Server::io() {
    return *io_;
}

void Server::post(std::function<void()> fn) {
    asio::post(*io_, std::move(fn));
}

namespace {
thread_local bool t_event_thread = false;
}

void Server::run_event_loop() {
    auto guard = asio::make_work_guard(*io_);
    t_event_thread = true;
    io_->run();
    t_event_thread = false;
}

bool Server::on_event_thread() {
    return t_event_thread;
}

void Server::update_title(bool full_test) {
    int16_t count = conns.user_count();
    std::string text = strf("Orvane Server - %i Users", count);
    if (full_test && count >= settings.maxusers)
        text += " (Full)";
    std::function<void(const std::string&)> sink;
    {
        std::lock_guard lock(title_mutex_);
        title_ = text;
        sink = title_sink_;
    }
    if (sink)
        sink(text);
}

std::string Server::title() const {
    std::lock_guard lock(title_mutex_);
    return title_;
}

void Server::set_title_sink(std::function<void(const std::string&)> sink) {
    std::lock_guard lock(title_mutex_);
    title_sink_ = std::move(sink);
}

} // namespace orv
