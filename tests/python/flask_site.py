"""What python_web.py asks Flask for."""

import io
import wsgiref.validate

import flask

site = flask.Flask(__name__)
site.secret_key = b"of the test"


@site.route("/")
def start():
    flask.session["visits"] = flask.session.get("visits", 0) + 1
    return f"visit {flask.session['visits']}, {sorted(flask.request.cookies)}, {flask.request.args.get('q')}"


@site.route("/form/", methods=["POST"])
def form():
    file = flask.request.files["file"]
    return flask.redirect(flask.url_for("sent", name=flask.request.form["name"], size=len(file.read())))


@site.route("/sent")
def sent():
    return flask.Response(f"{name}: {value}\n" for name, value in flask.request.args.items())


@site.route("/download")
def download():
    return flask.send_file(io.BytesIO(bytes(range(256)) * 4000), "application/octet-stream")


application = wsgiref.validate.validator(site)
