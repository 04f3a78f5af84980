#include "IoHandler.h"

IoHandler::~IoHandler() = default;

std::set<int> IoHandler::getReadFds() const {
    return {};
}

std::set<int> IoHandler::getWriteFds() const {
    return {};
}

bool IoHandler::handleInput(int /*fd*/) {
    return true;
}

bool IoHandler::handleOutput(int /*fd*/) {
    return true;
}
