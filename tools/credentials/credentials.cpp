#include "credentials.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "rk.h"

namespace teza_tools {

const char kCredentialUsage[] =
    "Credentials (the style follows from them, or from --style login|certificate|token|none):\n"
    "  --user LOGIN              login of the login-and-password style\n"
    "  --password-file FILE      its password: the first line of FILE (else TEZA_PASSWORD,\n"
    "                            else a prompt when standard input is a terminal)\n"
    "  --password PASSWORD       its password on the command line: visible to every user of\n"
    "                            this machine (ps, /proc); prefer the file or TEZA_PASSWORD\n"
    "  --token-file FILE         the token style: the first line of FILE is the bearer token\n"
    "                            (else TEZA_TOKEN, else a prompt on a terminal)\n"
    "  --cert FILE --key FILE    the certificate style (HTTPS): client certificate and key\n"
    "  --key-password-file FILE  the key's pass phrase: the first line of FILE (else a prompt\n"
    "                            on a terminal when the key is encrypted)\n";

namespace {

// The first line of `path`, without its line end.
bool ReadFirstLine(const std::string& path, const char* what, std::string* line,
                   std::string* error) {
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        *error = std::string("cannot read the ") + what + " file " + path + ": " + strerror(errno);
        return false;
    }
    line->clear();
    int c;
    while ((c = getc(file)) != EOF && c != '\n') {
        line->push_back(static_cast<char>(c));
    }
    const bool failed = ferror(file) != 0;
    const int readErrno = errno;
    fclose(file);
    if (failed) {
        *error =
            std::string("cannot read the ") + what + " file " + path + ": " + strerror(readErrno);
        return false;
    }
    if (!line->empty() && line->back() == '\r') {
        line->pop_back();
    }
    return true;
}

// Asks on the terminal of standard input, without echo. False when standard input is not a
// terminal, or it ended before a line.
bool Prompt(const std::string& question, std::string* answer) {
    if (isatty(STDIN_FILENO) != 1) {
        return false;
    }
    struct termios old;
    const bool quiet = tcgetattr(STDIN_FILENO, &old) == 0;
    if (quiet) {
        struct termios noEcho = old;
        noEcho.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &noEcho);
    }
    fputs(question.c_str(), stderr);
    fflush(stderr);
    answer->clear();
    char c;
    bool ended = false;
    for (;;) {
        ssize_t n = read(STDIN_FILENO, &c, 1);
        if (n <= 0) {
            break;
        }
        if (c == '\n') {
            ended = true;
            break;
        }
        answer->push_back(c);
    }
    if (quiet) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &old);
    }
    fputc('\n', stderr);
    return ended || !answer->empty();
}

bool FromEnvironment(const char* name, std::string* value) {
    const char* text = getenv(name);
    if (text == nullptr || *text == '\0') {
        return false;
    }
    *value = text;
    return true;
}

// True when the PEM file holds an encrypted private key (PKCS#8 or the older form).
bool KeyIsEncrypted(const std::string& path) {
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;  // librk reports the unusable file
    }
    char line[256];
    bool encrypted = false;
    while (!encrypted && fgets(line, sizeof line, file) != nullptr) {
        encrypted = strstr(line, "BEGIN ENCRYPTED PRIVATE KEY") != nullptr ||
                    strstr(line, "Proc-Type: 4,ENCRYPTED") != nullptr;
    }
    fclose(file);
    return encrypted;
}

bool ParseStyle(const std::string& name, int* style) {
    if (name == "login") {
        *style = RK_STYLE_LOGIN_PASSWORD;
    } else if (name == "certificate") {
        *style = RK_STYLE_CERTIFICATE;
    } else if (name == "token") {
        *style = RK_STYLE_TOKEN;
    } else if (name == "none") {
        *style = RK_STYLE_NONE;
    } else {
        return false;
    }
    return true;
}

}  // namespace

bool ParseCredentialOption(int argc, char** argv, int* i, CredentialOptions* options) {
    const std::string arg = argv[*i];
    if (*i + 1 >= argc) {
        return false;
    }
    const char* value = argv[*i + 1];
    if (arg == "--style") {
        options->style = value;
    } else if (arg == "--user") {
        options->hasLogin = true;
        options->login = value;
    } else if (arg == "--password") {
        options->hasPassword = true;
        options->password = value;
    } else if (arg == "--password-file") {
        options->passwordFile = value;
    } else if (arg == "--token-file") {
        options->tokenFile = value;
    } else if (arg == "--cert") {
        options->certFile = value;
    } else if (arg == "--key") {
        options->keyFile = value;
    } else if (arg == "--key-password-file") {
        options->keyPasswordFile = value;
    } else {
        return false;
    }
    ++*i;
    return true;
}

bool ResolveCredentials(const CredentialOptions& o, const char* defaultLogin,
                        const char* defaultPassword, Credentials* c, std::string* error) {
    if (o.certFile.empty() && (!o.keyFile.empty() || !o.keyPasswordFile.empty())) {
        *error = "--key and --key-password-file need --cert";
        return false;
    }
    const bool loginGiven = o.hasLogin || o.hasPassword || !o.passwordFile.empty();
    std::string tokenFromEnvironment;
    if (!o.style.empty()) {
        if (!ParseStyle(o.style, &c->style)) {
            *error = "unknown style '" + o.style + "': use login, certificate, token or none";
            return false;
        }
    } else if (!o.tokenFile.empty()) {
        c->style = RK_STYLE_TOKEN;
    } else if (!o.certFile.empty() && !loginGiven) {
        c->style = RK_STYLE_CERTIFICATE;
    } else if (loginGiven) {
        c->style = RK_STYLE_LOGIN_PASSWORD;
    } else if (FromEnvironment("TEZA_TOKEN", &tokenFromEnvironment)) {
        c->style = RK_STYLE_TOKEN;
    } else if (defaultLogin != nullptr) {
        c->style = RK_STYLE_LOGIN_PASSWORD;
    } else {
        c->style = RK_STYLE_NONE;
    }

    switch (c->style) {
        case RK_STYLE_LOGIN_PASSWORD:
            if (!o.hasLogin && defaultLogin == nullptr) {
                *error = "the login-and-password style needs --user LOGIN";
                return false;
            }
            c->login = o.hasLogin ? o.login : defaultLogin;
            if (o.hasPassword) {
                c->password = o.password;
            } else if (!o.passwordFile.empty()) {
                if (!ReadFirstLine(o.passwordFile, "password", &c->password, error)) {
                    return false;
                }
            } else if (FromEnvironment("TEZA_PASSWORD", &c->password)) {
            } else if (Prompt("Password for " + c->login + ": ", &c->password)) {
            } else if (!o.hasLogin && defaultPassword != nullptr) {
                c->password = defaultPassword;
            }
            break;
        case RK_STYLE_TOKEN:
            c->login.clear();
            if (!o.tokenFile.empty()) {
                if (!ReadFirstLine(o.tokenFile, "token", &c->password, error)) {
                    return false;
                }
            } else if (FromEnvironment("TEZA_TOKEN", &c->password)) {
            } else if (!Prompt("Token: ", &c->password)) {
                *error = "the token style needs a token: give --token-file FILE or set TEZA_TOKEN";
                return false;
            }
            if (c->password.empty()) {
                *error = "the token is empty";
                return false;
            }
            break;
        case RK_STYLE_CERTIFICATE:
            if (o.certFile.empty()) {
                *error = "the certificate style needs --cert FILE (and --key FILE)";
                return false;
            }
            break;
        default:
            break;
    }

    if (!o.certFile.empty()) {
        c->certFile = o.certFile;
        c->keyFile = o.keyFile;
        if (!o.keyPasswordFile.empty()) {
            if (!ReadFirstLine(o.keyPasswordFile, "key password", &c->keyPassphrase, error)) {
                return false;
            }
            c->hasKeyPassphrase = true;
        } else if (KeyIsEncrypted(o.keyFile.empty() ? o.certFile : o.keyFile)) {
            const std::string key = o.keyFile.empty() ? o.certFile : o.keyFile;
            if (!Prompt("Pass phrase for " + key + ": ", &c->keyPassphrase)) {
                *error = "the key " + key + " is encrypted: give --key-password-file FILE";
                return false;
            }
            c->hasKeyPassphrase = true;
        }
    }
    return true;
}

}  // namespace teza_tools
