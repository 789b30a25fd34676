// SPDX-License-Identifier: GPL-3.0-or-later
// The other X11 programs of the panel's end-to-end test (tests/e2e/panel_e2e_test.sh), on the
// display $DISPLAY. Each prints one line per thing that happened and flushes it, so the test
// can wait for exactly that line; each runs until it is ended.
//
//   x11_helper grab KEY [MODIFIERS]
//       Another program that owns a hot key: grabs KEY with MODIFIERS on the root window the
//       way hot-key daemons do (with and without NumLock and CapsLock). Prints "grabbed KEYCODE"
//       once the server granted the grab ("taken KEYCODE" when somebody else holds it), then
//       "press KEYCODE STATE" for each press it receives.
//       KEY: F1..F35, a letter or digit, or a keysym as 0x....; MODIFIERS: ctrl, alt, shift
//       joined by "+", or "none".
//   x11_helper tray
//       A system tray (freedesktop System Tray Protocol, XEmbed): owns _NET_SYSTEM_TRAY_S0,
//       prints "tray WINDOW", and for each icon that asks to dock, takes it in and prints
//       "docked ICON X Y" with the centre of the icon on the screen; "undocked ICON" when the
//       icon goes away.
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static xcb_connection_t* connection;
static xcb_screen_t* screen;

static xcb_atom_t Atom(const char* name)
{
    xcb_intern_atom_reply_t* reply =
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, (uint16_t)strlen(name), name), NULL);
    const xcb_atom_t atom = reply != NULL ? reply->atom : XCB_ATOM_NONE;
    free(reply);
    return atom;
}

static xcb_keysym_t ParseKeysym(const char* text)
{
    if (strncmp(text, "0x", 2) == 0)
        return (xcb_keysym_t)strtoul(text, NULL, 16);
    if ((text[0] == 'F' || text[0] == 'f') && isdigit((unsigned char)text[1])) {
        const int number = atoi(text + 1);
        if (number >= 1 && number <= 35)
            return 0xffbe + (xcb_keysym_t)(number - 1);
    }
    if (text[0] != '\0' && text[1] == '\0' && isalnum((unsigned char)text[0]))
        return (xcb_keysym_t)tolower((unsigned char)text[0]);
    return 0;
}

static int ParseModifiers(const char* text, uint16_t* mods)
{
    *mods = 0;
    if (strcmp(text, "none") == 0)
        return 1;
    char copy[64];
    snprintf(copy, sizeof copy, "%s", text);
    for (char* part = strtok(copy, "+"); part != NULL; part = strtok(NULL, "+")) {
        if (strcmp(part, "ctrl") == 0)
            *mods |= XCB_MOD_MASK_CONTROL;
        else if (strcmp(part, "alt") == 0)
            *mods |= XCB_MOD_MASK_1;
        else if (strcmp(part, "shift") == 0)
            *mods |= XCB_MOD_MASK_SHIFT;
        else
            return 0;
    }
    return 1;
}

static int Grab(const char* key, const char* modifiers)
{
    uint16_t mods = 0;
    const xcb_keysym_t keysym = ParseKeysym(key);
    if (keysym == 0 || (modifiers != NULL && !ParseModifiers(modifiers, &mods))) {
        fprintf(stderr, "x11_helper: bad key %s or modifiers %s\n", key, modifiers != NULL ? modifiers : "");
        return 2;
    }
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(connection);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
    if (codes == NULL || codes[0] == XCB_NO_SYMBOL) {
        fprintf(stderr, "x11_helper: keysym 0x%x is on no key\n", (unsigned)keysym);
        return 1;
    }
    const xcb_keycode_t keycode = codes[0];
    free(codes);
    xcb_key_symbols_free(symbols);

    const uint16_t locks[4] = {0, XCB_MOD_MASK_2, XCB_MOD_MASK_LOCK, XCB_MOD_MASK_2 | XCB_MOD_MASK_LOCK};
    int taken = 0;
    for (int i = 0; i < 4; ++i) {
        const xcb_void_cookie_t cookie = xcb_grab_key_checked(connection, 1, screen->root, mods | locks[i], keycode,
                                                              XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        xcb_generic_error_t* error = xcb_request_check(connection, cookie);
        if (error != NULL) {
            taken = 1;
            free(error);
        }
    }
    printf("%s %u\n", taken ? "taken" : "grabbed", keycode);
    fflush(stdout);

    xcb_generic_event_t* event;
    while ((event = xcb_wait_for_event(connection)) != NULL) {
        if ((event->response_type & 0x7f) == XCB_KEY_PRESS) {
            const xcb_key_press_event_t* press = (const xcb_key_press_event_t*)event;
            printf("press %u 0x%x\n", press->detail, press->state);
            fflush(stdout);
        }
        free(event);
    }
    return 0;
}

enum { kIconSize = 22, kTrayX = 0 };

static int Tray(void)
{
    const xcb_atom_t selection = Atom("_NET_SYSTEM_TRAY_S0");
    const xcb_atom_t opcode = Atom("_NET_SYSTEM_TRAY_OPCODE");
    const xcb_atom_t manager = Atom("MANAGER");
    const xcb_atom_t xembed = Atom("_XEMBED");
    const xcb_atom_t orientation = Atom("_NET_SYSTEM_TRAY_ORIENTATION");
    const int16_t trayY = (int16_t)(screen->height_in_pixels - kIconSize);

    // A strip along the bottom of the screen, out of the way of the windows under test.
    const xcb_window_t tray = xcb_generate_id(connection);
    const uint32_t values[] = {screen->black_pixel, 1,
                               XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, tray, screen->root, kTrayX, trayY, 8 * kIconSize, kIconSize,
                      0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    const uint32_t horizontal = 0;
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, tray, orientation, XCB_ATOM_CARDINAL, 32, 1, &horizontal);
    xcb_map_window(connection, tray);
    xcb_set_selection_owner(connection, tray, selection, XCB_CURRENT_TIME);
    xcb_get_selection_owner_reply_t* owner =
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, selection), NULL);
    if (owner == NULL || owner->owner != tray) {
        fprintf(stderr, "x11_helper: another system tray runs on this display\n");
        return 1;
    }
    free(owner);

    xcb_client_message_event_t announce;
    memset(&announce, 0, sizeof announce);
    announce.response_type = XCB_CLIENT_MESSAGE;
    announce.format = 32;
    announce.window = screen->root;
    announce.type = manager;
    announce.data.data32[0] = XCB_CURRENT_TIME;
    announce.data.data32[1] = selection;
    announce.data.data32[2] = tray;
    xcb_send_event(connection, 0, screen->root, XCB_EVENT_MASK_STRUCTURE_NOTIFY, (const char*)&announce);
    xcb_flush(connection);
    printf("tray 0x%x\n", tray);
    fflush(stdout);

    xcb_generic_event_t* event;
    while ((event = xcb_wait_for_event(connection)) != NULL) {
        const uint8_t type = event->response_type & 0x7f;
        if (type == XCB_CLIENT_MESSAGE) {
            const xcb_client_message_event_t* message = (const xcb_client_message_event_t*)event;
            // SYSTEM_TRAY_REQUEST_DOCK is opcode 0; the icon's window is the third word.
            if (message->type == opcode && message->data.data32[1] == 0) {
                const xcb_window_t icon = message->data.data32[2];
                // The panel shows one icon at a time: each takes the first place.
                const int16_t x = 0;
                xcb_reparent_window(connection, icon, tray, x, 0);
                const uint32_t size[] = {kIconSize, kIconSize};
                xcb_configure_window(connection, icon, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size);
                xcb_map_window(connection, icon);
                xcb_client_message_event_t notify;
                memset(&notify, 0, sizeof notify);
                notify.response_type = XCB_CLIENT_MESSAGE;
                notify.format = 32;
                notify.window = icon;
                notify.type = xembed;
                notify.data.data32[0] = XCB_CURRENT_TIME;
                notify.data.data32[1] = 0; // XEMBED_EMBEDDED_NOTIFY
                notify.data.data32[3] = tray;
                xcb_send_event(connection, 0, icon, XCB_EVENT_MASK_NO_EVENT, (const char*)&notify);
                xcb_flush(connection);
                printf("docked 0x%x %d %d\n", icon, kTrayX + x + kIconSize / 2, trayY + kIconSize / 2);
                fflush(stdout);
            }
        } else if (type == XCB_DESTROY_NOTIFY) {
            const xcb_destroy_notify_event_t* destroyed = (const xcb_destroy_notify_event_t*)event;
            if (destroyed->window != tray) {
                printf("undocked 0x%x\n", destroyed->window);
                fflush(stdout);
            }
        } else if (type == XCB_UNMAP_NOTIFY) {
            const xcb_unmap_notify_event_t* unmapped = (const xcb_unmap_notify_event_t*)event;
            if (unmapped->window != tray) {
                printf("unmapped 0x%x\n", unmapped->window);
                fflush(stdout);
            }
        }
        free(event);
    }
    return 0;
}

int main(int argc, char** argv)
{
    const int grab = argc >= 3 && argc <= 4 && strcmp(argv[1], "grab") == 0;
    const int tray = argc == 2 && strcmp(argv[1], "tray") == 0;
    if (!grab && !tray) {
        fprintf(stderr, "usage: x11_helper grab KEY [ctrl+alt+shift|none]\n       x11_helper tray\n");
        return 2;
    }
    connection = xcb_connect(NULL, NULL);
    if (xcb_connection_has_error(connection)) {
        fprintf(stderr, "x11_helper: cannot open the display\n");
        return 1;
    }
    screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    const int result = grab ? Grab(argv[2], argc == 4 ? argv[3] : NULL) : Tray();
    xcb_disconnect(connection);
    return result;
}
