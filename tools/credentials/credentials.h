// Credentials of the command-line programs (teza-call, teza-demo): the connection style and
// what it sends, taken from files, the environment or a prompt rather than the command line,
// where every user of the machine can read them.
//
//   --user LOGIN              login of the login-and-password style
//   --password TEXT           its password on the command line (visible to other users)
//   --password-file FILE      the password: the first line of FILE
//   --token-file FILE         the token style, with the first line of FILE as the token
//   --cert FILE --key FILE    the certificate style, with this client certificate and key
//   --key-password-file FILE  the key's pass phrase: the first line of FILE
//   --style STYLE             login, certificate, token or none, when the options above do
//                             not say it
//
// Without a file, the password comes from TEZA_PASSWORD and the token from TEZA_TOKEN; without
// those either, and with standard input a terminal, from a prompt that does not echo.
#ifndef TEZA_TOOLS_CREDENTIALS_H_
#define TEZA_TOOLS_CREDENTIALS_H_

#include <string>

namespace teza_tools {

// What the command line said.
struct CredentialOptions {
    std::string style;  // --style, or empty
    bool hasLogin = false;
    std::string login;
    bool hasPassword = false;
    std::string password;
    std::string passwordFile;
    std::string tokenFile;
    std::string certFile;
    std::string keyFile;
    std::string keyPasswordFile;
};

// What a connection uses.
struct Credentials {
    int style = 3;  // RK_STYLE_*
    std::string login;
    std::string password;  // the token in the token style
    std::string certFile;
    std::string keyFile;  // empty: the key is in the certificate's file
    bool hasKeyPassphrase = false;
    std::string keyPassphrase;
};

// Takes the credential option argv[*i] with its value argv[*i + 1], advancing *i past the
// value. False when argv[*i] is not a credential option; a missing value is left to the
// caller's usage error (false too).
bool ParseCredentialOption(int argc, char** argv, int* i, CredentialOptions* options);

// Works out the style and reads the secrets. `defaultLogin` and `defaultPassword` (both may be
// null) stand for a login-and-password style that the options leave unsaid. False, with a
// message for the user, when a file cannot be read or a needed secret cannot be had.
bool ResolveCredentials(const CredentialOptions& options, const char* defaultLogin,
                        const char* defaultPassword, Credentials* credentials, std::string* error);

// The help text of the options above, for usage messages.
extern const char kCredentialUsage[];

}  // namespace teza_tools

#endif  // TEZA_TOOLS_CREDENTIALS_H_
