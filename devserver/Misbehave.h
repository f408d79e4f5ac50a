// Wrong answers on demand: what a gateway must survive.
#pragma once

#include <vector>

#include "Exchange.h"
#include "common/Frame.h"

enum class AnswerStep { Header, Body, End };

struct Misbehaviour {
    const char* name;
    const char* arguments;
    const char* purpose;
    AnswerStep at;                         // the message that goes wrong, unless the request says another
    void (*act)(Exchange&, Frame& frame);  // ends the conversation, takes its time, or changes the frame
};

const std::vector<Misbehaviour>& misbehaviours();

// The page "/misbehave": an answer that goes wrong as the argument "how" says.
void misbehave(Exchange& exchange);
